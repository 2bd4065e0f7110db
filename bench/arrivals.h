#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

#include "tests/support/wait.h"

namespace bench {

// Data of packets that have come to one place. One thread adds, any thread asks.
class Arrivals {
 public:
  void Add(size_t bytes) { bytes_ += bytes; }
  size_t bytes() const { return bytes_; }
  // False when there are fewer and no more come for 5 s.
  bool WaitFor(size_t bytes) const {
    for (size_t before = bytes_; bytes_ < bytes; before = bytes_) {
      if (!test::WaitFor([&] { return bytes_ != before; }, std::chrono::seconds(5))) return false;
    }
    return true;
  }

 private:
  std::atomic<size_t> bytes_{0};
};

}  // namespace bench
