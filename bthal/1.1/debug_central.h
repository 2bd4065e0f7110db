#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "evidence/debug_files.h"
#include "evidence/evidence.h"
#include "evidence/record.h"
#include "evidence/report.h"

namespace android::hardware::bluetooth::hci {
class HciFlowControl;
class HciEventWatcher;
}  // namespace android::hardware::bluetooth::hci

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The process-wide diagnostics hub: watches the controller's error events, gives access to records,
// debug report, crash files and fatal errors, and registers the sections of the report and the core
// dump that come from the layers above the evidence. Built on first
// use, never destroyed. Any thread.
class DebugCentral {
 public:
  static DebugCentral& Get();

  void UpdateRecord(AnchorType type, const std::string& text) { Records().Add(type, text); }

  // Sets the receiver of the events that the hub makes itself: the stack.
  void SetEventSink(FatalReporter::EventSink sink) {
    evidence_.fatal.SetEventSink(std::move(sink));
  }

  // Watches the events of flow until StopMonitor().
  void StartMonitor(hci::HciFlowControl* flow) EXCLUDES(lock_);
  // When it returns no event is being handled, and the crash dump is armed again.
  void StopMonitor() EXCLUDES(lock_);

  // Whether a command packet is the controller's debug dump command, which is not answered.
  bool IsControllerDebugDumpOpcode(const hidl_vec<uint8_t>& command) const;

  void SetBtUartDebugPort(const std::string& uart_port) { debug::SetBtUartDebugPort(uart_port); }

  // Writes the whole debug report.
  void Dump(int fd) { evidence_.report.Write(fd); }
  // Firmware description and records.
  void dump_hal_log(int fd);

  // See Report().
  void ReportBqrError(BqrErrorCode code, const std::string& extra) {
    evidence_.fatal.Report(code, extra);
  }

  // Writes core dump and crash information, once per enable cycle.
  void start_crash_dump(const std::string& reason) { evidence_.crash_dump.Start(reason); }

 private:
  DebugCentral();

  bool handle_hardware_error(const hidl_vec<uint8_t>& event);
  // Returns whether the event must be kept from the stack.
  bool handle_vendor_specific_event(const hidl_vec<uint8_t>& event);
  void handle_bqr_event(const hidl_vec<uint8_t>& event);
  void handle_root_inflammation(const hidl_vec<uint8_t>& event);
  // For a dump that no error report has announced.
  void start_dump_without_cause(const char* operation, const char* source);
  void handle_bqr_fw_debug_data_dump(const hidl_vec<uint8_t>& event);
  void handle_bqr_chre_debug_data_dump(const hidl_vec<uint8_t>& event);
  void handle_debug_info_event(const hidl_vec<uint8_t>& event);
  bool handle_capability(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  bool handle_scan_enable(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);

  Evidence& evidence_;
  uint32_t suppress_forward_ = 0;  // the event being handled stays here; reader thread only
  std::mutex lock_;
  std::vector<std::unique_ptr<hci::HciEventWatcher>> watchers_ GUARDED_BY(lock_);
};

// A scoped record of the hub.
class DebugAnchor : public ScopedRecord {
 public:
  DebugAnchor(AnchorType type, const std::string& name, DebugCentral& /*central*/)
      : ScopedRecord(type, name) {}
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
