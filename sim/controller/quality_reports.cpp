#include "sim/controller/quality_reports.h"

#include <algorithm>

#include "sim/wire.h"

namespace zvk {
namespace {

// Positions in the event, of which the first two bytes are code and length.
constexpr size_t kEventHead = 2;
constexpr size_t kShortEvent = 197;
constexpr size_t kLongEvent = 248;
constexpr ptrdiff_t kShortRadio = 187;
constexpr ptrdiff_t kLongRadio = 151;
constexpr ptrdiff_t kLongQuality = 229;

constexpr uint16_t kLongVersion = 0x0101;

constexpr uint8_t kRadio[] = {
    0xC4, 0xC3,              // RSSI of the two chains: -60, -61
    10,   9,    0xFF, 0xFE,  // power of transmission and retransmission: 10, 9; -1, -2
    0x11, 0x12, 0x13, 0x14,  // beamforming, diversity, each likewise
};
constexpr uint8_t kQuality[] = {90, 80, 70};  // overall, to the peer, from it

constexpr uint8_t kA2dpLatency = 0;
constexpr uint32_t kBaseTimestamp = 1000;
constexpr size_t kMostEntries = 30;  // in one event

}  // namespace

Writer LinkQualityReport(uint8_t id, uint16_t handle, uint16_t version) {
  const bool is_long = version >= kLongVersion;
  Bytes event((is_long ? kLongEvent : kShortEvent), 0);
  event[2] = vendor_event::kQualityReport;
  event[3] = id;
  event[5] = static_cast<uint8_t>(handle);
  event[6] = static_cast<uint8_t>(handle >> 8);
  std::copy(std::begin(kRadio), std::end(kRadio),
            event.begin() + (is_long ? kLongRadio : kShortRadio));
  if (is_long) std::copy(std::begin(kQuality), std::end(kQuality), event.begin() + kLongQuality);
  return Writer().Append(ByteView(event).From(kEventHead));
}

Writer LatencyTrace(uint16_t handle, uint8_t announced, size_t carried) {
  Writer trace{vendor_event::kQualityReport, quality_report::kVendorTrace, kA2dpLatency};
  trace.U16(handle).U8(announced).U32(kBaseTimestamp);
  const auto entries = static_cast<unsigned>(std::min(carried, kMostEntries));
  // In units of 0.625 ms: when the packet came, and the delays of its first transmission, of the
  // first acknowledgement, and of the last transmission.
  for (unsigned i = 0; i < entries; ++i) {
    trace.U16(32 * i).U16(8 * (i + 1)).U16(12 * (i + 1)).U16(16 * (i + 1));
  }
  return trace;
}

}  // namespace zvk
