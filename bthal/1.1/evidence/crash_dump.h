#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "evidence/debug_report.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The crash files of one failure: a core dump with its information file, once in an enable cycle,
// and the dumps that controller and co-processor stream, assembled from their fragments. All of
// them are named by the time of the first. Any thread; the lock is not held while files of the
// core dump are written.
class CrashDump {
 public:
  // hal_log makes the core dump's first part.
  explicit CrashDump(std::function<std::string()> hal_log) : hal_log_(std::move(hal_log)) {}

  // Writes the transport's part, the last one of the core dump. Before the first dump.
  void SetTransportDump(SectionWriter transport) EXCLUDES(lock_);

  // Writes core dump and crash information, unless this cycle has them.
  void Start(const std::string& reason) EXCLUDES(lock_);
  bool Started() const EXCLUDES(lock_);
  // Begins another enable cycle: no fragment of an earlier dump remains.
  void Rearm() EXCLUDES(lock_);

  // Appends one event to the controller's dump file. Started() must hold for this and the two
  // below.
  void AppendToControllerDump(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  // Keep one event; with the last one of a dump all are written. Return whether they were; a file
  // that cannot be opened leaves them for the next last one.
  bool AddToControllerDump(const hidl_vec<uint8_t>& event, bool last) EXCLUDES(lock_);
  bool AddToCoProcessorDump(const hidl_vec<uint8_t>& event, bool last) EXCLUDES(lock_);

 private:
  using Fragments = std::deque<hidl_vec<uint8_t>>;

  void WriteCoreDump(const std::string& reason, const std::string& timestamp) EXCLUDES(lock_);

  const std::function<std::string()> hal_log_;
  mutable std::mutex lock_;
  SectionWriter transport_ GUARDED_BY(lock_);
  std::string timestamp_ GUARDED_BY(lock_);  // of this cycle's files; empty: armed
  uint32_t count_ GUARDED_BY(lock_) = 0;     // crash information files since the start
  bool controller_dump_failed_ GUARDED_BY(lock_) = false;  // in this cycle, and was logged
  Fragments controller_ GUARDED_BY(lock_);                 // in order of arrival
  Fragments co_processor_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
