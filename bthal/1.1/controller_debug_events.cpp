// The controller's own error reports and memory dumps, as DebugCentral takes them.
#define LOG_TAG "bthal.debug_central"

#include <android-base/stringprintf.h>
#include <log/log.h>

#include <utility>

#include "bluetooth_bqr.h"
#include "debug_central.h"
#include "hci/packet.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

using ::android::base::StringPrintf;

constexpr uint8_t kSubEventDebugInfo = 0x57;
constexpr uint8_t kSubEventQualityReport = 0x58;

enum QualityReportId : uint8_t {
  kMonitoring = 1,
  kApproachLsto = 2,
  kA2dpChoppy = 3,
  kScoChoppy = 4,
  kRootInflammation = 5,
  kLeAudioChoppy = 7,
  kFirmwareDump = 19,
  kChreDump = 20,
  kVendorTrace = 32,
};

}  // namespace

bool DebugCentral::handle_vendor_specific_event(const hidl_vec<uint8_t>& event) {
  if (event.size() < 2) {
    ALOGW("%s: Invalid length of VS event!", __func__);
  } else {
    switch (hci::ByteAt(event, 2)) {
      case kSubEventQualityReport:
        handle_bqr_event(event);
        break;
      case kSubEventDebugInfo:
        ALOGW("%s: Received Debug Info event!", __func__);
        handle_debug_info_event(event);
        break;
      default:
        break;
    }
  }
  return std::exchange(suppress_forward_, 0) != 0;
}

void DebugCentral::handle_bqr_event(const hidl_vec<uint8_t>& event) {
  if (event.size() <= 3) {
    ALOGW("%s: Invalid length of BQR event!", __func__);
    return;
  }
  switch (event[3]) {
    case kMonitoring:
    case kApproachLsto:
    case kA2dpChoppy:
    case kScoChoppy:
    case kLeAudioChoppy:
      bqr::ParseLinkQualityRelatedEvt(event);
      break;
    case kRootInflammation:
      handle_root_inflammation(event);
      break;
    case kFirmwareDump:
      handle_bqr_fw_debug_data_dump(event);
      suppress_forward_ = 1;
      break;
    case kChreDump:
      handle_bqr_chre_debug_data_dump(event);
      suppress_forward_ = 1;
      break;
    case kVendorTrace:
      bqr::ParseVendorSpecificTraceEvt(event);
      break;
    default:
      break;
  }
}

void DebugCentral::handle_root_inflammation(const hidl_vec<uint8_t>& event) {
  const uint8_t error = hci::ByteAt(event, 4);
  const uint8_t vendor_error = hci::ByteAt(event, 5);
  ALOGE("handle_bqr_event: Received Root Inflammation event! (0x%02hhX%02hhX)", error,
        vendor_error);
  if (vendor_error == static_cast<uint8_t>(BqrErrorCode::FirmwareMiscellaneousMajorFault) ||
      vendor_error == static_cast<uint8_t>(BqrErrorCode::SocBigHammerFault)) {
    suppress_forward_ = 1;
    return;
  }
  start_crash_dump(
      "ControllerRootInflammed-" +
      StringPrintf(" (error_code: 0x%02hhX, vendor_error: 0x%02hhX)", error, vendor_error));
  suppress_forward_ = 0;
}

void DebugCentral::start_dump_without_cause(const char* operation, const char* source) {
  if (evidence_.crash_dump.Started()) return;
  ALOGE("%s: did not receive Root Inflammation event before %s Dump!", operation, source);
  start_crash_dump("ControllerDebugInfoDataDumpWithoutRootInflammed");
}

void DebugCentral::handle_bqr_fw_debug_data_dump(const hidl_vec<uint8_t>& event) {
  if (event.size() < 4) {
    ALOGW("%s: Invalid length of bqr debug firmware dump event!", __func__);
    return;
  }
  start_dump_without_cause(__func__, "FW");
  evidence_.crash_dump.AppendToControllerDump(event);
}

void DebugCentral::handle_debug_info_event(const hidl_vec<uint8_t>& event) {
  if (event.size() < 9) {
    ALOGW("%s: Invalid length of debug info event!", __func__);
    return;
  }
  start_crash_dump("Debug Info Event");
  const bool last = event[5] != 0;
  if (last) ALOGE("%s: Last soc dump fragment has been received", __func__);
  if (evidence_.crash_dump.AddToControllerDump(event, last)) suppress_forward_ = 1;
}

void DebugCentral::handle_bqr_chre_debug_data_dump(const hidl_vec<uint8_t>& event) {
  if (event.size() <= 3) {
    ALOGW("%s: Invalid length of bqr chre debug dump event!", __func__);
    return;
  }
  start_dump_without_cause(__func__, "CHRE");
  const bool last = hci::ByteAt(event, 4) == 0x5A && hci::ByteAt(event, 5) == 0x00;
  if (last) ALOGI("%s: Last Chre dump packet has been received", __func__);
  evidence_.crash_dump.AddToCoProcessorDump(event, last);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
