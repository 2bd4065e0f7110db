#include "sink.h"

#include <chrono>
#include <cstring>

namespace bench {
namespace {

constexpr uint8_t kVendorEvent = 0xFF;
constexpr uint8_t kSubEvent = 0x01;  // one that the service passes on
constexpr size_t kHeader = 3;        // event code, length, sub-event
constexpr std::chrono::seconds kPatience{5};

}  // namespace

int64_t NowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

Bytes Sink::TimestampedEvent() {
  Bytes event(kEventBytes, 0);
  event[0] = kVendorEvent;
  event[1] = kEventBytes - 2;
  event[2] = kSubEvent;
  const int64_t now = NowNs();
  memcpy(&event[kHeader], &now, sizeof now);
  return event;
}

void Sink::OnEvent(const uint8_t* event, size_t size) {
  const int64_t now = NowNs();
  const std::lock_guard<std::mutex> guard(lock_);
  if (size == kEventBytes && event[0] == kVendorEvent && event[2] == kSubEvent) {
    int64_t sent;
    memcpy(&sent, event + kHeader, sizeof sent);
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
