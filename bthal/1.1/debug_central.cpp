#define LOG_TAG "bthal.debug_central"

#include "debug_central.h"

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <log/log.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "bluetooth_Activity.h"
#include "bluetooth_bqr.h"
#include "btzvk_protocol.h"
#include "debug_event_watcher.h"
#include "evidence/debug_files.h"
#include "hci/packet.h"
#include "stack_trace_helper.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

constexpr uint16_t kOpcodeDebugDump = 0xFD5B;
constexpr uint16_t kOpcodeVendorCapabilities = 0xFD53;
constexpr uint16_t kOpcodeSetExtendedScanEnable = 0x2042;

// Records cut their text to what a buffer of 128 bytes holds.
constexpr size_t kMaxRecordText = 127;

// Gives sink the event on a thread of its own and waits 1 s at most: a stack that does not answer
// cannot hold up the end of the process.
void DeliverBounded(const DebugCentral::EventSink& sink, const hidl_vec<uint8_t>& event) {
  struct Delivery {
    std::mutex lock;
    std::condition_variable changed;
    bool done = false;
  };
  auto delivery = std::make_shared<Delivery>();
  std::thread([sink, event, delivery] {
    sink(event);
    std::lock_guard<std::mutex> guard(delivery->lock);
    delivery->done = true;
    delivery->changed.notify_all();
  }).detach();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  std::unique_lock<std::mutex> guard(delivery->lock);
  while (!delivery->done &&
         delivery->changed.wait_until(guard, deadline) != std::cv_status::timeout) {
  }
}

// The process dies of its first report. Another thread that comes with one waits for that.
void ClaimReport() {
  static std::atomic<pid_t> reporter{0};
  pid_t nobody = 0;
  if (reporter.compare_exchange_strong(nobody, gettid()) || nobody == gettid()) return;
  for (;;) pause();
}

}  // namespace

DebugCentral& DebugCentral::Get() {
  static auto* instance = new DebugCentral;
  return *instance;
}

void DebugCentral::SetEventSink(EventSink sink) {
  RecursiveLock guard(lock_);
  event_sink_ = std::move(sink);
}

void DebugCentral::StartMonitor(hci::HciFlowControl* flow) {
  if (flow == nullptr) {
    ALOGE("%s: Invalid handle!", __func__);
    return;
  }
  // Made outside the lock: a watcher registers itself, which takes the flow control's.
  std::vector<std::unique_ptr<hci::HciEventWatcher>> fresh;
  const auto add = [&](const char* name, uint16_t event_code, uint16_t opcode,
                       DebugEventWatcher::Handler handler) {
    fresh.push_back(
        std::make_unique<DebugEventWatcher>(name, flow, event_code, opcode, std::move(handler)));
  };
  add("debug_HwError", hci::kEventHardwareError, 0,
      [this](const hidl_vec<uint8_t>& event) { return handle_hardware_error(event); });
  add("debug_VendorEvent", hci::kEventVendorSpecific, 0,
      [this](const hidl_vec<uint8_t>& event) { return handle_vendor_specific_event(event); });
  add("vendorCapabilityEvent", hci::kEventCommandComplete, kOpcodeVendorCapabilities,
      [this](const hidl_vec<uint8_t>& event) { return handle_capability(event); });
  add("LeSetExtentedScanEnableEvent", hci::kEventCommandComplete, kOpcodeSetExtendedScanEnable,
      [this](const hidl_vec<uint8_t>& event) { return handle_scan_enable(event); });

  RecursiveLock guard(lock_);
  std::move(fresh.begin(), fresh.end(), std::back_inserter(watchers_));
}

void DebugCentral::StopMonitor() {
  ALOGI("%s", __func__);
  std::vector<std::unique_ptr<hci::HciEventWatcher>> stopped;
  {
    RecursiveLock guard(lock_);
    stopped.swap(watchers_);
    crash_timestamp_.clear();
    firmware_dump_.clear();
  }
  while (!stopped.empty()) stopped.pop_back();
}

bool DebugCentral::handle_hardware_error(const hidl_vec<uint8_t>& event) {
  ALOGE("Received Hardware error event!");
  UpdateRecord(AnchorType::kHardwareError, "operator(): Received Hardware error event!");
  if (event.size() >= 3) ALOGE("Error code=%02X", event[2]);
  start_crash_dump("ControllerHwError");
  return false;
}

bool DebugCentral::handle_capability(const hidl_vec<uint8_t>& event) {
  RecursiveLock guard(lock_);
  bqr::updateControllerCapability(event);
  return false;
}

bool DebugCentral::handle_scan_enable(const hidl_vec<uint8_t>& event) {
  RecursiveLock guard(lock_);
  ALOGI("Command Complete Event of LE_SET_EXTENDED_SCAN_ENABLE, opcode:%04hX",
        hci::Le16At(event, 3));
  return false;
}

bool DebugCentral::IsControllerDebugDumpOpcode(const hidl_vec<uint8_t>& command) const {
  return command.size() >= 2 && hci::Le16At(command, 0) == kOpcodeDebugDump;
}

void DebugCentral::dump_hal_log(int fd) {
  const std::string rule = std::string(kRule) + "\n";
  std::string text = rule + "Controller Firmware Information\n" + rule;
  text += BtZvkProtocol::GetInstacne()->LocalName() + "\n" + rule;
  text += "Anchors' Last Appear\n" + rule;
  for (const AnchorRecords::Line& line : Records().LastAppearances()) {
    text += "Timestamp of " + line.text + ": " + line.timestamp + "\n";
  }
  text += rule + "Anchors' History\n" + rule;
  for (const AnchorRecords::Line& line : Records().History()) {
    text += line.timestamp + ": " + line.text + "\n";
  }
  base::WriteStringToFd(text, fd);
}

void DebugCentral::Dump(int fd) {
  dump_hal_log(fd);
  if (hci::shim::GetUserialType() != hci::kUserialCoProcessor) {
    dump_debugfs_to_fd(fd, UartDebugPort());
    dump_debugfs_to_fd(fd, kLpmLogBuffer);
  }
  collect_sscd_logs(fd, kCrashInfoPrefix, kDumpDirectory);
  ALOGI("%s: write bt coredump files to IBluetoothHci_default.txt", __func__);
  collect_sscd_logs(fd, kCoreDumpPrefix, kCoreDumpDirectory);
  activity::BtActivitiesLogger::GetInstacne()->DumpBtActivitiesStatistics(fd);
}

void DebugCentral::ReportBqrError(BqrErrorCode code, const std::string& extra) {
  ClaimReport();
  const hidl_vec<uint8_t> event = {0xFF, 0x04, 0x58, 0x05, 0x00, static_cast<uint8_t>(code)};
  UpdateRecord(AnchorType::kBqrError, extra.substr(0, kMaxRecordText));
  const std::string& message = MessageOf(code);
  ALOGE("%s: root inflamed event with reason: %s (%d)", __func__, message.c_str(),
        static_cast<int>(code));
  EventSink sink;
  {
    RecursiveLock guard(lock_);
    sink = event_sink_;
  }
  DeliverBounded(sink, event);
  if (code == BqrErrorCode::FirmwareMiscellaneousMajorFault ||
      code == BqrErrorCode::SocBigHammerFault) {
    kill(getpid(), SIGKILL);
  } else {
    start_crash_dump(message);
    LogFatal(code, extra);
  }
}

void Report(BqrErrorCode code, const std::string& why) {
  DebugCentral::Get().ReportBqrError(code, why);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
