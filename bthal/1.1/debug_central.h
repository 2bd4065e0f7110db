#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/recursive_mutex.h"
#include "evidence/debug_files.h"
#include "evidence/record.h"
#include "evidence/report.h"

namespace android::hardware::bluetooth::hci {
class HciFlowControl;
class HciEventWatcher;
}  // namespace android::hardware::bluetooth::hci

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The process-wide diagnostics hub: keeps the records, watches the controller's error events,
// writes crash files, prints everything into the HAL's debug output, and ends the process on a
// fatal error. Built on first use, never destroyed. Any thread.
class DebugCentral {
 public:
  using EventSink = std::function<void(const hidl_vec<uint8_t>& event)>;

  static DebugCentral& Get();

  void UpdateRecord(AnchorType type, const std::string& text) { Record(type, text); }

  // Where events that the hub makes itself go: the stack.
  void SetEventSink(EventSink sink) EXCLUDES(lock_);

  // Watches the events of flow until StopMonitor().
  void StartMonitor(hci::HciFlowControl* flow) EXCLUDES(lock_);
  // Also re-arms the crash dump.
  void StopMonitor() EXCLUDES(lock_);

  // Whether a command packet is the controller's debug dump command, which is not answered.
  bool IsControllerDebugDumpOpcode(const hidl_vec<uint8_t>& command) const;

  void SetBtUartDebugPort(const std::string& uart_port) { debug::SetBtUartDebugPort(uart_port); }

  // The whole diagnostic picture, as text.
  void Dump(int fd);
  // Firmware description and records.
  void dump_hal_log(int fd);

  // See Report().
  void ReportBqrError(BqrErrorCode code, const std::string& extra);

  // Writes core dump and crash information, once per enable cycle.
  void start_crash_dump(const std::string& reason) EXCLUDES(lock_);

 private:
  DebugCentral() = default;

  bool handle_hardware_error(const hidl_vec<uint8_t>& event);
  // Returns whether the event must be kept from the stack.
  bool handle_vendor_specific_event(const hidl_vec<uint8_t>& event);
  void handle_bqr_event(const hidl_vec<uint8_t>& event);
  void handle_root_inflammation(const hidl_vec<uint8_t>& event);
  void handle_bqr_fw_debug_data_dump(const hidl_vec<uint8_t>& event);
  void handle_bqr_chre_debug_data_dump(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  void handle_debug_info_event(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  bool handle_capability(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  std::string crash_timestamp() EXCLUDES(lock_);
  bool handle_scan_enable(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  void write_core_dump(int fd, const std::string& reason, const std::string& timestamp);

  uint32_t suppress_forward_ = 0;  // the event being handled stays here; reader thread only
  RecursiveMutex lock_;
  EventSink event_sink_ GUARDED_BY(lock_);
  std::string crash_timestamp_ GUARDED_BY(lock_);  // empty: armed
  std::vector<std::unique_ptr<hci::HciEventWatcher>> watchers_ GUARDED_BY(lock_);
  // Fragments of the dumps that the controller and the co-processor stream, in order of arrival.
  std::deque<hidl_vec<uint8_t>> firmware_dump_ GUARDED_BY(lock_);
  std::deque<hidl_vec<uint8_t>> chre_dump_ GUARDED_BY(lock_);
  std::atomic<uint32_t> crash_count_{0};
};

// A scoped record of the hub.
class DebugAnchor : public ScopedRecord {
 public:
  DebugAnchor(AnchorType type, const std::string& name, DebugCentral& /*central*/)
      : ScopedRecord(type, name) {}
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
