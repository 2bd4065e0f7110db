#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "arrivals.h"
#include "controller.h"

namespace bench {

// Nanoseconds of a clock that only goes on.
int64_t NowNs();

// Where a relay delivers events to. Any thread.
class Sink {
 public:
  static constexpr size_t kEventBytes = 40;  // without H4 type byte
  // An advertising report, whose data begin with the time of this call.
  static Bytes TimestampedEvent();

  // Takes the delay of a timestamped event, counts any other as an answer. Without type byte.
  void OnEvent(const uint8_t* event, size_t size);
  void OnAcl(size_t size) { acl_.Add(size); }

  // False when there are fewer after 5 s.
  bool WaitForAnswers(size_t count);
  bool WaitForEvents(size_t count);
  size_t answers();
  const Arrivals& acl() const { return acl_; }
  std::vector<double> TakeDelaysUs();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<double> delays_us_;
  size_t answers_ = 0;
  Arrivals acl_;
};

}  // namespace bench
