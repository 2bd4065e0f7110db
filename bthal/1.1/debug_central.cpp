#define LOG_TAG "bthal.debug_central"

#include "debug_central.h"

#include <android-base/file.h>
#include <log/log.h>

#include <algorithm>

#include "bluetooth_Activity.h"
#include "bluetooth_bqr.h"
#include "btzvk_protocol.h"
#include "hci/packet.h"
#include "hci/scoped_event_watcher.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

constexpr uint16_t kOpcodeDebugDump = 0xFD5B;
constexpr uint16_t kOpcodeVendorCapabilities = 0xFD53;
constexpr uint16_t kOpcodeSetExtendedScanEnable = 0x2042;

// The kernel's log buffers of UART and low power. On the co-processor path there are none.
void WriteKernelLogs(int fd) {
  if (hci::shim::GetUserialType() == hci::kUserialCoProcessor) return;
  dump_debugfs_to_fd(fd, UartDebugPort());
  dump_debugfs_to_fd(fd, kLpmLogBuffer);
}

void WriteCrashFiles(int fd) {
  collect_sscd_logs(fd, kCrashInfoPrefix, kDumpDirectory);
  ALOGI("Dump: write bt coredump files to IBluetoothHci_default.txt");
  collect_sscd_logs(fd, kCoreDumpPrefix, kCoreDumpDirectory);
}

}  // namespace

DebugCentral& DebugCentral::Get() {
  static auto* instance = new DebugCentral;
  return *instance;
}

DebugCentral::DebugCentral() : evidence_(Evidence::Get()) {
  evidence_.report.SetFirmwareDescription([] { return BtZvkProtocol::GetInstacne()->LocalName(); });
  evidence_.report.Add(WriteKernelLogs);
  evidence_.report.Add(WriteCrashFiles);
  evidence_.report.Add(
      [](int fd) { activity::BtActivitiesLogger::GetInstacne()->DumpBtActivitiesStatistics(fd); });
  evidence_.crash_dump.SetTransportDump(
      [](int fd) { hci::shim::GetTlDebugDump(fd, UartDebugPort(), kLpmLogBuffer); });
}

void DebugCentral::StartMonitor(hci::HciFlowControl* flow) {
  if (flow == nullptr) {
    ALOGE("%s: Invalid handle!", __func__);
    return;
  }
  // Made outside the lock: a watcher registers itself, which takes the flow control's.
  std::vector<std::unique_ptr<hci::HciEventWatcher>> fresh;
  const auto add = [&](const char* name, uint16_t event_code, uint16_t opcode,
                       hci::ScopedEventWatcher::Handler handler) {
    fresh.push_back(std::make_unique<hci::ScopedEventWatcher>(name, flow, event_code, opcode,
                                                              std::move(handler)));
  };
  add("debug_HwError", hci::kEventHardwareError, 0,
      [this](const hidl_vec<uint8_t>& event) { return handle_hardware_error(event); });
  add("debug_VendorEvent", hci::kEventVendorSpecific, 0,
      [this](const hidl_vec<uint8_t>& event) { return handle_vendor_specific_event(event); });
  add("vendorCapabilityEvent", hci::kEventCommandComplete, kOpcodeVendorCapabilities,
      [this](const hidl_vec<uint8_t>& event) { return handle_capability(event); });
  add("LeSetExtentedScanEnableEvent", hci::kEventCommandComplete, kOpcodeSetExtendedScanEnable,
      [this](const hidl_vec<uint8_t>& event) { return handle_scan_enable(event); });

  std::lock_guard<std::mutex> guard(lock_);
  std::move(fresh.begin(), fresh.end(), std::back_inserter(watchers_));
}

void DebugCentral::StopMonitor() {
  ALOGI("%s", __func__);
  std::vector<std::unique_ptr<hci::HciEventWatcher>> stopped;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopped.swap(watchers_);
  }
  // First, because an event that is being handled may begin a dump yet.
  while (!stopped.empty()) stopped.pop_back();
  evidence_.crash_dump.Rearm();
}

bool DebugCentral::handle_hardware_error(const hidl_vec<uint8_t>& event) {
  ALOGE("Received Hardware error event!");
  UpdateRecord(AnchorType::kHardwareError, "operator(): Received Hardware error event!");
  if (event.size() >= 3) ALOGE("Error code=%02X", event[2]);
  start_crash_dump("ControllerHwError");
  return false;
}

bool DebugCentral::handle_capability(const hidl_vec<uint8_t>& event) {
  std::lock_guard<std::mutex> guard(lock_);
  bqr::updateControllerCapability(event);
  return false;
}

bool DebugCentral::handle_scan_enable(const hidl_vec<uint8_t>& event) {
  std::lock_guard<std::mutex> guard(lock_);
  ALOGI("Command Complete Event of LE_SET_EXTENDED_SCAN_ENABLE, opcode:%04hX",
        hci::Le16At(event, 3));
  return false;
}

bool DebugCentral::IsControllerDebugDumpOpcode(const hidl_vec<uint8_t>& command) const {
  return command.size() >= 2 && hci::Le16At(command, 0) == kOpcodeDebugDump;
}

void DebugCentral::dump_hal_log(int fd) { base::WriteStringToFd(evidence_.report.HalLog(), fd); }

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
