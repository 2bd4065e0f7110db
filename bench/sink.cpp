#include "sink.h"

#include <chrono>
#include <cstring>

namespace bench {
namespace {

// An advertising report: code, length, sub-event, one report, its types, an address, size of data.
constexpr uint8_t kBegin[] = {
    0x3E, Sink::kEventBytes - 2, 0x02, 0x01, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05,
    0x06, Sink::kEventBytes - 14};

constexpr std::chrono::seconds kPatience{5};

}  // namespace

int64_t NowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

Bytes Sink::TimestampedEvent() {
  Bytes event(kEventBytes, 0);
  memcpy(event.data(), kBegin, sizeof kBegin);
  const int64_t now = NowNs();
  memcpy(&event[sizeof kBegin], &now, sizeof now);
  return event;
}

void Sink::OnEvent(const uint8_t* event, size_t size) {
  const int64_t now = NowNs();
  const std::lock_guard<std::mutex> guard(lock_);
  if (size == kEventBytes && event[0] == kBegin[0]) {
    int64_t sent;
    memcpy(&sent, event + sizeof kBegin, sizeof sent);
    delays_us_.push_back(static_cast<double>(now - sent) * 1e-3);
  } else {
    ++answers_;
  }
  changed_.notify_all();
}

bool Sink::WaitForAnswers(size_t count) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, kPatience, [&] { return answers_ >= count; });
}

bool Sink::WaitForEvents(size_t count) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, kPatience, [&] { return delays_us_.size() >= count; });
}

size_t Sink::answers() {
  const std::lock_guard<std::mutex> guard(lock_);
  return answers_;
}

std::vector<double> Sink::TakeDelaysUs() {
  const std::lock_guard<std::mutex> guard(lock_);
  return std::move(delays_us_);
}

}  // namespace bench
