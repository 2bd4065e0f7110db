// The steps of the last bring-up as data, for programs that show them.
#pragma once

#include <android-base/thread_annotations.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// What a bring-up does, one step after the other, and what the attachment of a stack adds. Any
// thread; the lock is a leaf.
class BringUpSteps {
 public:
  // The process's one, built on first use, never destroyed.
  static BringUpSteps& Get();

  // A bring-up begins; what was kept of the one before goes. cause: a sentence.
  void BeginBringUp(const char* cause) EXCLUDES(lock_);
  // A stack attaches to a controller that is up; what the stack before it has added goes.
  void BeginAttachment(const char* cause) EXCLUDES(lock_);

  // A step begins; one that is running ends well.
  void Begin(const char* name, const std::string& detail = "") EXCLUDES(lock_);
  // The running step ends, if there is one. A detail is what it found.
  void End(const std::string& detail = "") EXCLUDES(lock_);
  void Fail() EXCLUDES(lock_);
  // Something that is no step and ends none.
  void Mark(const char* text) EXCLUDES(lock_);
  // Mark, and what follows is of the attachment.
  void EndBringUp(const char* text) EXCLUDES(lock_);

  // A line each, in their order: "step.NUMBER=BEGIN TOOK RESULT NAME: DETAIL", times in
  // nanoseconds, BEGIN since 1970. RESULT is "done", "failed", "running" or "mark"; ": DETAIL" is
  // missing where there is none.
  std::string Text() const EXCLUDES(lock_);

 private:
  // A stack that attaches again and again to a controller that hangs adds no more than these.
  static constexpr size_t kMost = 256;

  struct Step {
    const char* result;
    const char* name;
    std::string detail;
    int64_t begin_ns;      // since 1970
    int64_t monotonic_ns;  // the same moment by CLOCK_MONOTONIC
    int64_t took_ns;
  };

  void Add(const char* result, const char* name, const std::string& detail) REQUIRES(lock_);
  void EndAs(const char* result, const std::string& detail) REQUIRES(lock_);

  mutable std::mutex lock_;
  std::vector<Step> steps_ GUARDED_BY(lock_);
  size_t of_bring_up_ GUARDED_BY(lock_) = 0;  // so many; the others are the attachment's
};

// "opened", or "opened after 2 failed attempts".
std::string AfterFailures(const char* done, int failures);

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
