#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "evidence/bqr_error_code.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// Ends the process on a fatal error: tells the stack, has the crash files written, aborts in the
// function named after the error. Any thread; only the first report counts: a thread that
// reports a second error waits for the end of the process.
class FatalReporter {
 public:
  // Gets an HCI event, which lives as long as the call.
  using EventSink = std::function<void(const hidl_vec<uint8_t>& event)>;

  explicit FatalReporter(std::function<void(const std::string& reason)> write_files)
      : write_files_(std::move(write_files)) {}
  // Waits for a sink that is running.
  ~FatalReporter();
  FatalReporter(const FatalReporter&) = delete;
  FatalReporter& operator=(const FatalReporter&) = delete;

  // The way to the stack. Makes the thread on which the sink is called.
  void SetEventSink(EventSink sink) EXCLUDES(lock_);
  // Waits 1 s at most for the stack. Does not return.
  void Report(BqrErrorCode code, const std::string& why) EXCLUDES(lock_);

 private:
  bool StartMessenger() REQUIRES(lock_);
  void RunMessenger() EXCLUDES(lock_);
  void Claim();
  // A stack that does not answer cannot hold up the end of the process.
  void TellStack(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);

  const std::function<void(const std::string&)> write_files_;
  std::atomic<pid_t> reporter_{0};  // the thread whose report counts
  std::mutex lock_;
  std::condition_variable changed_;
  EventSink sink_ GUARDED_BY(lock_);
  std::optional<hidl_vec<uint8_t>> event_ GUARDED_BY(lock_);  // not yet given to the sink
  int told_ GUARDED_BY(lock_) = 0;                            // events that the sink is done with
  bool ended_ GUARDED_BY(lock_) = false;
  // Started before it is needed: later, the system may refuse a new thread.
  std::thread messenger_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
