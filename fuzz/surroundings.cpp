#include "surroundings.h"

#include <poll.h>
#include <pthread.h>
#include <qvr/qvr_client.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <typeinfo>
#include <utility>

#include "base/thread_role.h"
#include "base/timer.h"
#include "bluetooth_address.h"
#include "bt_messages_generated.h"
#include "coex_device.h"
#include "h4/hw_control.h"
#include "target.h"
#include "transport/async_fd_watcher.h"

using namespace android::hardware::bluetooth;
using std::chrono::nanoseconds;

static fuzz::Surroundings& all = fuzz::Surroundings::Get();

namespace android::hardware::bluetooth {

struct Timer::State {
  std::function<void()> callback;
};
std::unique_ptr<Timer> Timer::Create(const char* /*name*/, std::function<void()> callback) {
  return std::unique_ptr<Timer>(new Timer(std::make_shared<State>(State{std::move(callback)})));
}
Timer::Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}
Timer::~Timer() { Disarm(); }
bool Timer::Arm(std::chrono::milliseconds first, std::chrono::milliseconds period) {
  all.alarms[this] = {all.now + first, period, state_->callback};
  return true;
}
void Timer::Disarm() { all.alarms.erase(this); }

namespace async {

struct AsyncFdWatcher::Run {};
int AsyncFdWatcher::WatchFdForNonBlockingReads(int, const ReadCallback& callback) {
  all.reader = callback;
  all.taken.clear();
  ++all.openings;
  return 0;
}
void AsyncFdWatcher::StopWatchingFileDescriptor(int) { Unwatch(); }
void AsyncFdWatcher::StopWatchingFileDescriptors() { Unwatch(); }
void AsyncFdWatcher::Unwatch() { all.reader = nullptr; }

}  // namespace async

namespace coex_device {

struct CoexDevice::Poller {};
CoexDevice::CoexDevice() = default;
CoexDevice::~CoexDevice() = default;
bool CoexDevice::DeviceOpen(const std::function<void()>& callback, int) {
  all.coexistence = callback;
  return true;
}
int CoexDevice::DeviceClose() {
  all.coexistence = nullptr;
  return 0;
}

}  // namespace coex_device
}  // namespace android::hardware::bluetooth

namespace qvr {
namespace {

class Client : public TransportClient {
  int Connect() override { return all.fails ? kNotReady : 0; }
  int FindServer(const std::string&, uint32_t* id) override { return *id = 0; }
  int SetConnectionHandler(std::function<void()> on_lost) override {
    on_lost_ = std::move(on_lost);
    return 0;
  }
  int SetMessageHandler(uint32_t, MessageHandler handler) override {
    all.reader = nullptr;
    if (!handler) return 0;
    ++all.openings;
    all.reader = [this, handler](int) { Read(handler); };
    return 0;
  }
  // What has arrived is one packet; a stray byte is the end of the connection.
  void Read(const MessageHandler& handler) {
    const std::string packet = std::exchange(all.unread, {});
    const int type = static_cast<uint8_t>(packet[0]);
    if (type > 5) return on_lost_();
    // ACL data, SCO data, event, ISO data
    constexpr int kKinds[] = {9, 10, 8, 11};
    const auto* bytes = reinterpret_cast<const uint8_t*>(packet.data());
    flatbuffers::FlatBufferBuilder builder;
    const auto vector = builder.CreateVector(bytes + 1, packet.size() - 1);
    builder.Finish(chre::bt::CreateEvent(builder, kKinds[type - 2], vector));
    handler(builder.GetBufferPointer(), builder.GetSize());
  }
  int Send(const Request& request, std::function<void(int)>) override {
    // An error here would end the process with calls under way, which nothing can go on after.
    const auto& payload = request.payload;  // flow-controlled or not, type, packet
    if (!all.fails) all.on_packet(payload[1], {payload.begin() + 2, payload.end()});
    return 0;
  }
  int Call(const Request&, std::chrono::milliseconds timeout, int*) override {
    if (all.fails) all.now += timeout;
    return all.fails ? kOperationTimedOut : 0;
  }

  std::function<void()> on_lost_;
};

}  // namespace

int CreateTransportClient(int, std::unique_ptr<TransportClient>* client) {
  *client = std::make_unique<Client>();
  return 0;
}

}  // namespace qvr

namespace fuzz {
namespace {

// A variable that has another value meanwhile.
template <typename T>
class Set {
 public:
  Set(T* variable, T value) : variable_(variable), old_(std::exchange(*variable, value)) {}
  ~Set() { *variable_ = old_; }
  Set(const Set&) = delete;

 private:
  T* const variable_;
  const T old_;
};
struct As : Set<ThreadRole> {
  explicit As(ThreadRole role) : Set(&g_thread_role, role) {}
};

int waits = 0;  // one within the other

// Lets something else run while the service waits. Returns false when the deadline has come.
bool Wait(std::optional<nanoseconds> deadline) {
  const Set<int> deeper(&waits, waits + 1);
  if (!deadline && waits > 1) throw Blocked();
  try {
    const As other(ThreadRole::kOther);
    if (all.RunThread()) return true;
    if (!all.dead && all.meanwhile(!deadline)) return true;
    if (deadline) {
      all.Pass(std::max(*deadline - all.now, nanoseconds(0)));
      return false;
    }
  } catch (const Fatal&) {
    all.dead = true;
  }
  if (deadline) {
    all.now = std::max(all.now, *deadline);
    return false;
  }
  Require(all.dead, "a wait has an end");
  hci::AbandonProvisioning();
  return true;
}

}  // namespace

void Surroundings::Deliver(const std::string& bytes) {
  if (reading) return;  // it is the one that waits
  const As role(ThreadRole::kReader);
  const Set<bool> busy(&reading, true);
  unread += bytes;
  while (reader && !unread.empty()) {
    const auto read = reader;  // may be stopped from inside its own call
    read(hwcontrol::BtHwControl::Get().UartFd());
  }
  unread.clear();
}

void Surroundings::ResetNotice() {
  const As role(ThreadRole::kCoex);
  if (const auto callback = coexistence) callback();
}

bool Surroundings::RunThread() {
  if (threads.empty()) return false;
  const auto task = std::move(threads.front());
  threads.pop_front();
  task->_M_run();
  return true;
}

void Surroundings::Terminate() {
  if (signal_thread == nullptr) return;
  signalled = true;
  const As role(ThreadRole::kOther);
  try {
    signal_thread->_M_run();
  } catch (const Blocked&) {
  }
}

void Surroundings::Pass(nanoseconds duration) {
  const As role(ThreadRole::kOther);
  const nanoseconds end = now + duration;
  const auto sooner = [](const auto& a, const auto& b) { return a.second.at < b.second.at; };
  for (;;) {
    const auto next = std::min_element(alarms.begin(), alarms.end(), sooner);
    if (next == alarms.end() || next->second.at > end) break;
    const Alarm alarm = next->second;
    now = std::max(now, alarm.at);
    next->second.at = alarm.period.count() > 0 ? now + alarm.period : nanoseconds::max();
    alarm.callback();
  }
  now = std::max(now, end);
}

}  // namespace fuzz

// In the place of what the service calls (the linker's --wrap).

static constexpr pthread_t kSimulated = 1;

static bool IsLine(int fd) { return fd >= 0 && fd == hwcontrol::BtHwControl::Get().UartFd(); }

extern "C" {

int __wrap_acquire_wake_lock(int, const char*) {
  fuzz::Require(!std::exchange(all.wake_lock, true), "it is taken once");
  return 0;
}
int __wrap_release_wake_lock(const char*) {
  fuzz::Require(std::exchange(all.wake_lock, false), "it is released once");
  return 0;
}

int __wrap_malloc_trim(size_t) { return 0; }

int __wrap_nanosleep(const timespec* duration, timespec*) {
  all.now += std::chrono::seconds(duration->tv_sec) + nanoseconds(duration->tv_nsec);
  return 0;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t* mutex, clockid_t,
                                  const timespec* end) {
  const std::unique_ptr<pthread_mutex_t, int (*)(pthread_mutex_t*)> relock(mutex,
                                                                           pthread_mutex_lock);
  pthread_mutex_unlock(mutex);
  const auto deadline = std::chrono::seconds(end->tv_sec) + nanoseconds(end->tv_nsec);
  return fuzz::Wait(deadline) ? 0 : ETIMEDOUT;
}

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
  if (size == sizeof(uint64_t) && !IsLine(fd)) {
    if (!std::exchange(all.signalled, false)) throw fuzz::Blocked();
    return sizeof(uint64_t);
  }
  if (!IsLine(fd)) return fuzz::Read(fd, buffer, size);
  const size_t count = std::min({size, all.read_size, all.unread.size()});
  memcpy(buffer, all.unread.data(), count);
  all.unread.erase(0, count);
  return static_cast<ssize_t>(count);
}

ssize_t __wrap_writev(int fd, const iovec* parts, int count) {
  if (!IsLine(fd) || all.fails) {
    errno = EIO;
    return -1;
  }
  if (all.room == 0) {
    errno = EAGAIN;
    return -1;
  }
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  }
  all.on_part();
  const size_t fits = std::min(all.room, bytes.size());
  if (all.room != SIZE_MAX) all.room -= fits;
  all.taken.append(bytes, 0, fits);
  if (fits == bytes.size()) {
    const std::string packet = std::exchange(all.taken, {});
    all.on_packet(static_cast<uint8_t>(packet[0]), packet.substr(1));
  }
  return static_cast<ssize_t>(fits);
}

int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  if (!IsLine(fds[0].fd) || fds[0].events != POLLOUT) return __real_poll(fds, count, timeout);
  const auto wait = std::min(all.full_for, nanoseconds(std::chrono::milliseconds(timeout)));
  all.Pass(wait);
  all.full_for -= wait;
  fds[1].revents = 0;
  if (all.full_for > nanoseconds(0)) return 0;
  all.room = SIZE_MAX;
  return 1;
}

}  // extern "C"

std::chrono::steady_clock::time_point Now() noexcept
    __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point Now() noexcept {
  return std::chrono::steady_clock::time_point(all.now);
}

void WaitWithoutEnd(std::condition_variable*, std::unique_lock<std::mutex>& lock) __asm__(
    "__wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE");
void WaitWithoutEnd(std::condition_variable*, std::unique_lock<std::mutex>& lock) {
  const std::unique_ptr<std::mutex, void (*)(std::mutex*)> relock(
      lock.mutex(), [](std::mutex* mutex) { mutex->lock(); });
  lock.mutex()->unlock();
  fuzz::Wait(std::nullopt);
}

void StartRealThread(std::thread* thread, std::thread::_State_ptr state, void (*)()) __asm__(
    "__real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE");
void StartThread(std::thread* thread, std::thread::_State_ptr state, void (*)()) __asm__(
    "__wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE");
void StartThread(std::thread* thread, std::thread::_State_ptr state, void (*depend)()) {
  if (!all.on_packet) return StartRealThread(thread, std::move(state), depend);  // the engine's
  const std::thread::_State& task = *state;
  const char* name = typeid(task).name();  // has those of the functions around a lambda
  *reinterpret_cast<pthread_t*>(thread) = kSimulated;
  if (strstr(name, "StartSignalThread") != nullptr) {
    all.signal_thread = std::move(state);
    return;
  }
  if (strstr(name, "RunOnOwnThread") == nullptr && strstr(name, "link_to_death") == nullptr) {
    *reinterpret_cast<pthread_t*>(thread) = 0;
    throw std::system_error(EAGAIN, std::generic_category());
  }
  all.threads.push_back(std::move(state));
}

void ReallyDetach(std::thread* thread) __asm__("__real__ZNSt6thread6detachEv");
void Detach(std::thread* thread) __asm__("__wrap__ZNSt6thread6detachEv");
void Detach(std::thread* thread) {
  auto& id = *reinterpret_cast<pthread_t*>(thread);
  if (id != kSimulated) return ReallyDetach(thread);
  id = 0;
}
