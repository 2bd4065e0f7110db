#include "system/pty_stalls.h"

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

namespace test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kInterval{20};
constexpr milliseconds kLate{200};
// In both directions, to the controller and back, twice this is more than half of a time-out.
constexpr milliseconds kStalled{600};
constexpr std::chrono::seconds kRecent{5};

}  // namespace

PtyStalls::PtyStalls() {
  termios raw{};
  cfmakeraw(&raw);
  if (openpty(&master_, &slave_, nullptr, &raw, nullptr) != 0) throw std::runtime_error("openpty");
  thread_ = std::thread([this] { Measure(); });
}

PtyStalls::~PtyStalls() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  thread_.join();
  close(master_);
  close(slave_);
}

void PtyStalls::Measure() {
  for (;;) {
    const auto start = Clock::now();
    char byte = 'x';
    if (write(master_, &byte, 1) != 1 || read(slave_, &byte, 1) != 1) return;
    const auto taken = Clock::now() - start;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (taken > kLate) late_.push_back({Clock::now(), taken});
      if (stop_) return;
    }
    std::this_thread::sleep_for(kInterval);
  }
}

bool PtyStalls::Recently() {
  std::lock_guard<std::mutex> guard(lock_);
  Clock::duration sum{};
  for (const auto& [end, taken] : late_) {
    if (Clock::now() - end < kRecent) sum += taken;
  }
  return sum > kStalled;
}

}  // namespace test
