#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace test {

// What callbacks on other threads have noted, in order.
class Notes {
 public:
  void Add(std::string note) {
    const std::lock_guard<std::mutex> guard(mutex_);
    notes_.push_back(std::move(note));
  }
  // All since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(notes_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> notes_;
};

}  // namespace test
