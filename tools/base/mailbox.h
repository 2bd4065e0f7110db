#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "tools/base/failure.h"

namespace bthalctl {

// Hands items from threads of a runtime to the main thread, which waits for fd().
template <typename Item>
class Mailbox {
 public:
  Mailbox() : readable_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!readable_.ok()) throw Failure(WithErrno("eventfd"));
  }

  void Put(Item item) EXCLUDES(mutex_) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = write(readable_.get(), &one, sizeof one);
  }
  // The oldest; does not wait.
  std::optional<Item> Take() EXCLUDES(mutex_) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (items_.empty()) {
      uint64_t ignored = 0;
      [[maybe_unused]] const ssize_t drained = read(readable_.get(), &ignored, sizeof ignored);
      return std::nullopt;
    }
    Item item = std::move(items_.front());
    items_.pop_front();
    return item;
  }
  // Readable when Take() may have something.
  int fd() const { return readable_.get(); }

 private:
  const ::android::base::unique_fd readable_;
  std::mutex mutex_;
  std::deque<Item> items_ GUARDED_BY(mutex_);
};

}  // namespace bthalctl
