// What the WLAN driver writes to the coexistence device, until its end or a reset notice. The
// thread of the device runs in its turn, on this one: a thread for each input takes ten times as
// long as the input.
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>

#include <utility>

#include "base/thread_role.h"
#include "base/timer.h"
#include "coex_device.h"
#include "target.h"

using namespace android::hardware::bluetooth;
using coex_device::CoexDevice;

namespace {

bool opens = false;                 // the device is the one that starts a thread
void* (*routine)(void*) = nullptr;  // its thread, which has not run yet
void* argument = nullptr;
std::string written;  // by the device

}  // namespace

// The timer of the close, which is for a thread that does not end.
struct Timer::State {};
std::unique_ptr<Timer> Timer::Create(const char* /*name*/, std::function<void()> /*callback*/) {
  return std::unique_ptr<Timer>(new Timer(nullptr));
}
Timer::Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}
Timer::~Timer() = default;
bool Timer::Arm(std::chrono::milliseconds, std::chrono::milliseconds) { return true; }
void Timer::Disarm() {}

// In the place of what the device calls (the linker's --wrap).
extern "C" {

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* shared) {
  if (!opens) {  // it is the engine's; the linker does not know a sanitizer's function by __real_
    static const auto create =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_DEFAULT, "pthread_create"));
    return create(thread, attributes, start, shared);
  }
  *thread = pthread_self();
  routine = start;
  argument = shared;
  return 0;
}
// The file is ready always, and takes what is written.
int __wrap_poll(pollfd* fds, nfds_t, int) {
  fds[0].revents = POLLIN;
  return 1;
}
ssize_t __wrap_write(int, const void* bytes, size_t size) {
  written.append(static_cast<const char*>(bytes), size);
  return static_cast<ssize_t>(size);
}
// The kernel has no such descriptors: nobody polls them.
int __wrap_socketpair(int, int, int, int sockets[2]) {
  sockets[0] = sockets[1] = 1 << 20;
  return 0;
}
int __wrap_pthread_join(pthread_t, void**) { return 0; }
int __wrap_pthread_setname_np(pthread_t, const char*) { return 0; }

}  // extern "C"

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds = Packets("coexistence.txt");
  Append(&seeds, {{1, 0, 1, 0x42}, {1, 0, 1, 0x43}, {1, 0, 1, 0x44, 1, 0, 1, 0x43}});
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Log(size);
  const std::string file(data, data + size);
  fuzz::Put("/dev/wbrc", file);
  size_t notice = 0;  // where it stands
  while (notice < size && !(data[notice] == 1 && notice + 3 < size && data[notice + 2] == 1 &&
                            (data[notice + 3] | 1) == 0x43)) {
    notice += 4;
  }
  const int fatal_errors = fuzz::FatalErrors();
  int notices = 0;
  written.clear();
  CoexDevice device;
  opens = true;
  fuzz::Require(device.DeviceOpen([&] { ++notices; }, 0), "the device can be opened");
  opens = false;
  try {
    routine(std::exchange(argument, nullptr));
  } catch (const fuzz::Fatal&) {
  }
  g_thread_role = ThreadRole::kOther;
  device.DeviceClose();
  fuzz::Require(notices == (notice < size ? 1 : 0), "one call for the first notice");
  fuzz::Require(fuzz::FatalErrors() - fatal_errors == notices, "a notice is a fatal error");
  const bool acknowledged = notices > 0 && data[notice + 3] == 0x43;
  fuzz::Require(written == (acknowledged ? "\2\2\4\x81" : ""), "one kind is acknowledged");
  return 0;
}
