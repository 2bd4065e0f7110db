#define LOG_TAG "coex_device"

#include "coex_device.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <pthread.h>
#include <root_folder/root_folder.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>

#include "base/thread_role.h"
#include "base/timer.h"
#include "evidence/report.h"

namespace android::hardware::bluetooth::coex_device {
namespace {

using ::android::base::unique_fd;

constexpr char kDevice[] = "/dev/wbrc";
constexpr char kThreadName[] = "BT_COEX_THREAD";

// The driver's messages: class, one byte not looked at, kind, event code.
constexpr size_t kMessageSize = 4;
constexpr uint8_t kMessageClass = 1;
constexpr uint8_t kMessageEvent = 1;
constexpr uint8_t kResetNotice = 0x42;
constexpr uint8_t kResetNoticeToAcknowledge = 0x43;
constexpr uint8_t kAcknowledgement[] = {0x02, 0x02, 0x04, 0x81};

// The thread gets a signal to leave after the first, and is detached after the second.
constexpr std::chrono::seconds kCloseTimeout{1};
constexpr std::chrono::seconds kLetGoTimeout{2};

thread_local volatile sig_atomic_t t_asked_to_exit = 0;

void sigusr1_handler(int /*signum*/) { t_asked_to_exit = 1; }

// Called after every interrupted call on the poll thread.
void ExitIfAsked() {
  if (t_asked_to_exit == 0) return;
  ALOGI("%s: pthread_exit(0)", "sigusr1_handler");
  pthread_exit(nullptr);
}

// Retries call while it is interrupted.
template <typename Call>
ssize_t Interruptible(Call call) {
  for (;;) {
    const ssize_t result = call();
    if (result >= 0 || errno != EINTR) return result;
    ExitIfAsked();
  }
}

}  // namespace

// Shared by the device and its thread; lives until both have dropped it.
struct CoexDevice::Poller {
  unique_fd coex_fd;           // the thread's while it lives
  unique_fd break_sockets[2];  // closing the second ends the first one's poll
  std::atomic<bool> running{true};
  pthread_t thread{};  // written before the device hands the poller out

  std::mutex lock;
  std::condition_variable ended;
  std::function<void()> callback GUARDED_BY(lock);
  int delay_ms GUARDED_BY(lock) = 0;
  bool alive GUARDED_BY(lock) = true;  // the thread exists and may be signalled

  void SetNotice(const std::function<void()>& new_callback, int new_delay_ms) EXCLUDES(lock) {
    std::lock_guard<std::mutex> guard(lock);
    callback = new_callback;
    delay_ms = new_delay_ms;
  }
  bool IsAlive() EXCLUDES(lock) {
    std::lock_guard<std::mutex> guard(lock);
    return alive;
  }

  // Ends the thread and closes the device. Returns the result of closing; 0 if there was nothing to
  // close.
  int DeviceClose() EXCLUDES(lock);
  // Returns 0, or the error that ends the loop.
  int ReadEvent();
  void OnResetNotice(uint8_t event);
  bool WriteEvent(const uint8_t* bytes, uint8_t length);
  void PollLoop();
  // Returns whether coex_fd is the caller's now.
  bool ClosePollThread() EXCLUDES(lock);
  void coex_close_timeout() EXCLUDES(lock);
  // Returns whether the thread has ended.
  bool JoinOrLetGo() EXCLUDES(lock);
};

int CoexDevice::Poller::ReadEvent() {
  uint8_t message[kMessageSize] = {};
  const ssize_t n = Interruptible([&] { return read(coex_fd.get(), message, sizeof message); });
  if (n <= 0) {
    const int error = n < 0 ? errno : EPIPE;
    ALOGE("%s Cannot read from wlbt driver: %s", __func__, n < 0 ? strerror(error) : "end of file");
    return -error;
  }
  const uint8_t event = message[3];
  ALOGI("%s Read wlbt driver event: 0x%X", __func__, event);
  if (message[0] != kMessageClass) {
    ALOGW("%s Got unexpected message", __func__);
  } else if (message[2] != kMessageEvent) {
    ALOGW("%s received unknown event", __func__);
  } else if (event == kResetNotice || event == kResetNoticeToAcknowledge) {
    OnResetNotice(event);
  }
  return 0;
}

void CoexDevice::Poller::OnResetNotice(uint8_t event) {
  constexpr char kOperation[] = "ReadEvent";

  std::function<void()> notify;
  int delay = 0;
  {
    std::lock_guard<std::mutex> guard(lock);
    notify = callback;
    delay = delay_ms;
  }
  notify();
  ALOGI("%s Sleep : %d ms", kOperation, delay);
  timespec left = {delay / 1000, delay % 1000 * 1000000L};
  Interruptible([&] { return nanosleep(&left, &left); });
  if (event == kResetNoticeToAcknowledge) {
    ALOGI("%s msg: 0x%X", "BtSend", kAcknowledgement[3]);
    WriteEvent(kAcknowledgement, sizeof kAcknowledgement);
  }
  DeviceClose();
  evidence::Report(BqrErrorCode::SocBigHammerFault,
                   "restart bt due to receiving Big Hammer Event!");
}

bool CoexDevice::Poller::WriteEvent(const uint8_t* bytes, uint8_t length) {
  ALOGI("%s", __func__);
  if (Interruptible([&] { return write(coex_fd.get(), bytes, length); }) >= 0) return true;
  ALOGE("Failed to write the message to coex device!!");
  return false;
}

void CoexDevice::PollEventThread(const std::shared_ptr<Poller>& poller) {
  // Also when the thread leaves by pthread_exit.
  struct AtEnd {
    Poller& poller;
    ~AtEnd() {
      std::lock_guard<std::mutex> guard(poller.lock);
      poller.alive = false;
      poller.ended.notify_all();
    }
  } at_end{*poller};

  g_thread_role = ThreadRole::kCoex;
  poller->PollLoop();
  poller->coex_fd.reset();
  ALOGI("%s: Thread done", __func__);
  evidence::RecordFormat(AnchorType::kCoexThreadDone, "%s, Thread done", __func__);
}

void CoexDevice::Poller::PollLoop() {
  constexpr char kOperation[] = "PollEventThread";
  ALOGI("%s: Thread created fd = %d", kOperation, coex_fd.get());
  pthread_setname_np(pthread_self(), kThreadName);
  struct sigaction action {};
  action.sa_handler = sigusr1_handler;
  if (sigaction(SIGUSR1, &action, nullptr) != 0) {
    ALOGE("%s: Unable to set a SIGUSR1 signal handler", kOperation);
    return;
  }
  while (running) {
    pollfd fds[] = {{coex_fd.get(), POLLIN, 0}, {break_sockets[0].get(), 0, 0}};
    if (Interruptible([&] { return poll(fds, 2, -1); }) < 0) {
      ALOGE("%s: Cannot poll for fds: %s", kOperation, strerror(errno));
      return;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      ALOGI("%s: POLLIN", kOperation);
      if (ReadEvent() < 0) return;
    } else if (fds[0].revents != 0) {
      ALOGI("%s: (POLLHUP | POLLERR)", kOperation);
      return;
    }
    if (fds[1].revents != 0) {
      ALOGI("%s: socket event", kOperation);
      evidence::RecordFormat(AnchorType::kCoexSocketEvent, "%s, socket event", kOperation);
    }
  }
}

void CoexDevice::Poller::coex_close_timeout() {
  ALOGE("coex_close_timeout");
  evidence::RecordFormat(AnchorType::kCoexThreadStuck, "%s: PollEventThread Stuck!", __func__);
  std::lock_guard<std::mutex> guard(lock);
  if (alive) pthread_kill(thread, SIGUSR1);
}

bool CoexDevice::Poller::JoinOrLetGo() {
  const auto deadline = std::chrono::steady_clock::now() + kLetGoTimeout;
  bool stuck = false;
  {
    std::unique_lock<std::mutex> guard(lock);
    const base::ScopedLockAssertion locked(lock);
    while (alive && ended.wait_until(guard, deadline) != std::cv_status::timeout) {
    }
    stuck = alive;
  }
  if (stuck) {
    pthread_detach(thread);
  } else {
    pthread_join(thread, nullptr);
  }
  return !stuck;
}

bool CoexDevice::Poller::ClosePollThread() {
  ALOGI("%s", __func__);
  running = false;
  const bool own_thread = g_thread_role == ThreadRole::kCoex;
  std::unique_ptr<Timer> timer;
  if (!own_thread) {
    timer = Timer::Create("bthal_coex", [this] { coex_close_timeout(); });
    if (timer == nullptr) {
      ALOGE("%s: cannot create coex_close_timer, ret:%d", "coex_close_timer_setup", -1);
    } else if (!timer->Arm(kCloseTimeout, std::chrono::milliseconds(0))) {
      // A Timer that exists can be armed: this does not happen.
      ALOGE("%s: Failed to set coex_close_timer, ret:%d", "coex_close_timer_setup", -1);
    }
  }
  ALOGI("%s: close socket fds_1", __func__);
  evidence::RecordFormat(AnchorType::kCoexSocket1Closed, "%s, close socket fds_1", __func__);
  {
    std::lock_guard<std::mutex> guard(lock);
    break_sockets[1].reset();
  }
  // The first socket is being polled: it is closed with the poller.
  ALOGI("%s: close socket fds_0", __func__);
  evidence::RecordFormat(AnchorType::kCoexSocket0Closed, "%s, close socket fds_0", __func__);
  ALOGI("%s: pthread_join", __func__);
  return own_thread || JoinOrLetGo();
}

int CoexDevice::Poller::DeviceClose() {
  ALOGI("%s", __func__);
  if (!ClosePollThread() || coex_fd.get() < 0) return 0;
  ALOGI("%s: close(coex_fd_:%d)", __func__, coex_fd.get());
  return close(coex_fd.release());
}

CoexDevice::CoexDevice() = default;

CoexDevice::~CoexDevice() { DeviceClose(); }

bool CoexDevice::DeviceOpen(const std::function<void()>& callback, int delay_ms) {
  ALOGI("%s", __func__);
  std::lock_guard<std::mutex> guard(lock_);
  if (poller_ != nullptr && poller_->IsAlive()) {
    poller_->SetNotice(callback, delay_ms);
    return true;
  }
  if (poller_ != nullptr) {  // its thread has ended by itself
    pthread_join(poller_->thread, nullptr);
    poller_.reset();
  }
  auto poller = std::make_shared<Poller>();
  poller->coex_fd.reset(
      static_cast<int>(TEMP_FAILURE_RETRY(root_folder::Open(kDevice, O_RDWR | O_NOCTTY))));
  if (poller->coex_fd.get() < 0) {
    ALOGE("Failed to open the coex device!! Error: %s", strerror(errno));
    return false;
  }
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    ALOGE("Failed to create socket pair!! Error: %s", strerror(errno));
    return false;
  }
  poller->break_sockets[0].reset(sockets[0]);
  poller->break_sockets[1].reset(sockets[1]);
  poller->SetNotice(callback, delay_ms);

  const int fd = poller->coex_fd.get();
  auto argument = std::make_unique<std::shared_ptr<Poller>>(poller);
  const auto routine = [](void* shared) -> void* {
    const std::unique_ptr<std::shared_ptr<Poller>> own(
        static_cast<std::shared_ptr<Poller>*>(shared));
    PollEventThread(*own);
    return nullptr;
  };
  const int error = pthread_create(&poller->thread, nullptr, routine, argument.get());
  if (error == 0) {
    static_cast<void>(argument.release());  // the thread's now
    poller_ = std::move(poller);
  } else {
    ALOGE("%s: pthread_create error: %s", "CreateThread", strerror(error));
  }
  ALOGI("%s return upon created fd: %d", __func__, fd);
  evidence::RecordFormat(AnchorType::kCoexOpened, "%s return upon created fd: %d", __func__, fd);
  return true;
}

int CoexDevice::DeviceClose() {
  std::shared_ptr<Poller> poller;
  {
    std::lock_guard<std::mutex> guard(lock_);
    poller.swap(poller_);
  }
  if (poller != nullptr) return poller->DeviceClose();
  ALOGI("%s", __func__);
  return 0;
}

}  // namespace android::hardware::bluetooth::coex_device
