#define LOG_TAG "bthal.bqr"

#include "bluetooth_bqr.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <atomic>
#include <iterator>

#include "hci/packet.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::bqr {
namespace {

using ::android::base::StringPrintf;
using hci::ByteAt;
using hci::Le16At;

constexpr uint16_t kFirstVersion = 0x0100;
constexpr uint16_t kSecondVersion = 0x0101;

std::atomic<uint16_t> g_capability_version{kFirstVersion};

// Where the vendor part of a link-quality report begins, and where its link qualities do (0: it
// has none).
struct Layout {
  size_t min_size;
  size_t antennas;
  size_t link_quality;
};
constexpr Layout kFirstLayout = {197, 187, 0};
constexpr Layout kSecondLayout = {248, 151, 229};

uint32_t Le32At(const hidl_vec<uint8_t>& event, size_t at) {
  return Le16At(event, at) | static_cast<uint32_t>(Le16At(event, at + 2)) << 16;
}

std::string LinkQualityText(const hidl_vec<uint8_t>& event, const Layout& layout) {
  const auto antenna = [&](size_t field) {
    return static_cast<int>(static_cast<int8_t>(ByteAt(event, layout.antennas + field)));
  };
  const auto diversity = [&](size_t field) { return ByteAt(event, layout.antennas + field); };
  std::string text = StringPrintf(
      ", Handle: 0x%04x, RSSI_C0: %d, RSSI_C1: %d, TxPw_C0: %d, ReTxPw_C0: %d, TxPw_C1: %d, "
      "ReTxPw_C1: %d, BFTx: 0x%02x, BFReTx: 0x%02x, DivTx: 0x%02x, DivReTx: 0x%02x",
      Le16At(event, 5), antenna(0), antenna(1), antenna(2), antenna(3), antenna(4), antenna(5),
      diversity(6), diversity(7), diversity(8), diversity(9));
  if (layout.link_quality != 0) {
    text += StringPrintf(", Overall_link_quality: %u, Tx_link_quality: %u, Rx_link_quality: %u",
                         ByteAt(event, layout.link_quality), ByteAt(event, layout.link_quality + 1),
                         ByteAt(event, layout.link_quality + 2));
  }
  return text;
}

}  // namespace

std::string QualityReportIdToString(uint8_t id) {
  constexpr const char* kNames[] = {
      "Invalid    ", "Monitoring ", "Appro LSTO ", "A2DP Choppy",
      "SCO Choppy ", "Invalid    ", "Invalid    ", "LE Audio Choppy",
  };
  return id < std::size(kNames) ? kNames[id] : kNames[0];
}

void updateControllerCapability(const hidl_vec<uint8_t>& event) {
  constexpr size_t kVersionOffset = 14;
  if (event.size() < kVersionOffset + 2) return;
  g_capability_version = Le16At(event, kVersionOffset);
  LOG(INFO) << "vendor capability supported version: " << g_capability_version;
}

void ParseLinkQualityRelatedEvt(const hidl_vec<uint8_t>& event) {
  const uint16_t version = g_capability_version;
  if (version > kSecondVersion) {
    LOG(WARNING) << __func__
                 << ": Unable to parse the vendor specific parameter for BQR event with version: "
                 << version;
    return;
  }
  const Layout& layout = version == kSecondVersion ? kSecondLayout : kFirstLayout;
  if (event.size() < layout.min_size) return;
  LOG(WARNING) << __func__ << ": " << QualityReportIdToString(ByteAt(event, 3))
               << LinkQualityText(event, layout);
}

void ParseVendorSpecificTraceEvt(const hidl_vec<uint8_t>& event) {
  constexpr uint8_t kA2dpLatency = 0;
  if (event.size() <= 4) {
    LOG(ERROR) << __func__ << ": Invalid length of BQR vendor specific event!";
  } else if (event[4] == kA2dpLatency) {
    ParseA2DPLatencyMeasurement(event);
  } else {
    LOG(ERROR) << __func__ << ": Invalid vendor report id";
  }
}

void ParseA2DPLatencyMeasurement(const hidl_vec<uint8_t>& event) {
  constexpr size_t kFirstEntry = 12;
  constexpr size_t kEntrySize = 8;
  constexpr double kMillisecondsPerUnit = 0.625;
  const int count = ByteAt(event, 7);
  LOG(WARNING) << __func__ << ": Vendor Specific Trace Event: A2DP Latency Measurement"
               << StringPrintf(", Handle: 0x%04x", Le16At(event, 5))
               << StringPrintf(", Num_Packets_Logged: %d, Base_Timestamp: %d", count,
                               static_cast<int>(Le32At(event, 8)));
  if (count == 0) return;

  double sums[3] = {};
  for (int i = 1; i <= count; ++i) {
    const size_t entry = kFirstEntry + static_cast<size_t>(i - 1) * kEntrySize;
    const auto ms = [&](size_t field) {
      return Le16At(event, entry + 2 * field) * kMillisecondsPerUnit;
    };
    LOG(WARNING) << __func__
                 << StringPrintf(
                        ": Packet[%d/%d], Packet_Entry_Time_Offset: %3.3f,"
                        "First_Packet_Transmit_Delay: %3.3f, First_Packet_Ack_Delay: %3.3f,"
                        "Final_Packet_Transmit_Delay: %3.3f",
                        i, count, ms(0), ms(1), ms(2), ms(3));
    for (size_t field = 0; field < 3; ++field) sums[field] += ms(field + 1);
  }
  LOG(WARNING) << __func__
               << StringPrintf(
                      ": Average, Packet_num: %d, First_Packet_Transmit_Delay_avg: %3.3f, "
                      "First_Packet_Ack_Delay_avg: %3.3f, Final_Packet_Transmit_Delay_avg: %3.3f",
                      count, sums[0] / count, sums[1] / count, sums[2] / count);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::bqr
