// Preloaded into a program, it has the program's calls into the system fail as a plan says.
//
// BTHAL_FAULT is "CALL WHERE FIRST LAST ERROR": of the calls of that name whose target contains
// WHERE ("-": of all), the FIRST to the LAST fail with the error number; 0 lets a write take half
// of its bytes instead. The target is the path, or what /proc/self/fd says of the descriptor, or
// else the name of the calling thread, "main" for the first one. CALL "new" is the allocation of an
// object, "clock" the wall clock, which jumps by ERROR seconds. BTHAL_FAULT_CONTROL names a file of
// three 32-bit numbers: calls count while the first is not 0; the others are how many were counted,
// and how many failed.
//
// Loaded in front of a sanitizer's runtime, it hands on to that.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// The target of a call without a path or a descriptor: the name of its thread, or "main".
struct Thread {};
constexpr Thread kThread;

struct Control {
  std::atomic<uint32_t> armed, seen, failed;
};

struct Plan {
  char call[32];
  char where[256];
  uint32_t first, last;
  int error;
  Control* control = nullptr;

  Plan() {
    const char* text = getenv("BTHAL_FAULT");
    const char* path = getenv("BTHAL_FAULT_CONTROL");
    if (text == nullptr || path == nullptr) return;
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    void* memory = MAP_FAILED;
    if (file >= 0 && sscanf(text, "%31s %255s %u %u %d", call, where, &first, &last, &error) == 5) {
      memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED,
                    static_cast<int>(file), 0);
    }
    if (memory == MAP_FAILED) {
      dprintf(STDERR_FILENO, "fault_injector: not a plan: %s, %s\n", text, path);
      _exit(99);
    }
    syscall(SYS_close, file);
    control = static_cast<Control*>(memory);
  }

  bool Strikes(const char* name) const { return control != nullptr && strcmp(call, name) == 0; }
  // Counts a call. Whether it fails; errno is set then.
  bool Fails(const char* name, const char* target) const {
    if (!Strikes(name) || control->armed == 0) return false;
    if (strcmp(where, "-") != 0 && strstr(target, where) == nullptr) return false;
    const uint32_t count = ++control->seen;
    if (count < first || count > last) return false;
    ++control->failed;
    errno = error;
    return true;
  }
  bool Fails(const char* name, Thread) const {
    if (!Strikes(name)) return false;
    char thread[16] = "main";
    if (syscall(SYS_gettid) != getpid()) prctl(PR_GET_NAME, thread);
    return Fails(name, thread);
  }
  bool Fails(const char* name, int descriptor) const {
    if (!Strikes(name)) return false;
    char link[32];
    char target[PATH_MAX] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const int saved = errno;
    syscall(SYS_readlinkat, AT_FDCWD, link, target, sizeof target - 1);
    errno = saved;
    return Fails(name, target);
  }
};

const Plan& ThePlan() {
  static const Plan plan;
  return plan;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// FAULTY(RESULT, NAME, TARGET, (PARAMETERS), ARGUMENTS…): what the program calls in NAME's place.

#define FAULTY(result, name, target, parameters, ...)                                    \
  result name parameters {                                                               \
    static auto* const next = Next<result parameters>(#name);                            \
    return ThePlan().Fails(#name, target) ? static_cast<result>(-1) : next(__VA_ARGS__); \
  }

extern "C" {
FAULTY(ssize_t, read, fd, (int fd, void* data, size_t size), fd, data, size)
FAULTY(ssize_t, recvmsg, fd, (int fd, msghdr* message, int flags), fd, message, flags)
FAULTY(ssize_t, sendmsg, fd, (int fd, const msghdr* message, int flags), fd, message, flags)
FAULTY(int, poll, fds->fd, (pollfd * fds, nfds_t count, int time), fds, count, time)
FAULTY(int, select, kThread, (int count, fd_set* in, fd_set* out, fd_set* odd, timeval* time),
       count, in, out, odd, time)
FAULTY(int, epoll_create1, kThread, (int flags), flags)
FAULTY(int, epoll_wait, fd, (int fd, epoll_event* events, int count, int time), fd, events, count,
       time)
FAULTY(int, eventfd, kThread, (unsigned count, int flags) noexcept, count, flags)
FAULTY(int, pipe2, kThread, (int* ends, int flags) noexcept, ends, flags)
FAULTY(int, socketpair, kThread, (int domain, int type, int protocol, int* ends) noexcept, domain,
       type, protocol, ends)
FAULTY(int, socket, kThread, (int domain, int type, int protocol) noexcept, domain, type, protocol)
FAULTY(int, bind, fd, (int fd, const sockaddr* address, socklen_t size) noexcept, fd, address, size)
FAULTY(int, listen, fd, (int fd, int count) noexcept, fd, count)
FAULTY(int, accept4, fd, (int fd, sockaddr* address, socklen_t* size, int flags), fd, address, size,
       flags)
FAULTY(int, getsockopt, fd, (int fd, int level, int name, void* value, socklen_t* size) noexcept,
       fd, level, name, value, size)
FAULTY(int, tcgetattr, fd, (int fd, termios* settings) noexcept, fd, settings)
FAULTY(int, tcsetattr, fd, (int fd, int when, const termios* settings) noexcept, fd, when, settings)
FAULTY(int, tcflush, fd, (int fd, int queue) noexcept, fd, queue)
FAULTY(int, flock, fd, (int fd, int operation) noexcept, fd, operation)
FAULTY(int, fchmodat, path, (int folder, const char* path, mode_t mode, int flags) noexcept, folder,
       path, mode, flags)
FAULTY(int, mkdir, path, (const char* path, mode_t mode) noexcept, path, mode)
FAULTY(int, renameat, to,
       (int from_folder, const char* from, int to_folder, const char* to) noexcept, from_folder,
       from, to_folder, to)
FAULTY(int, symlinkat, path, (const char* to, int folder, const char* path) noexcept, to, folder,
       path)
FAULTY(int, memfd_create, name, (const char* name, unsigned flags) noexcept, name, flags)
FAULTY(int, sched_setscheduler, kThread,
       (pid_t thread, int policy, const sched_param* how) noexcept, thread, policy, how)

// The two that may take half of their bytes.
ssize_t write(int fd, const void* data, size_t size) {
  static auto* const next = Next<ssize_t(int, const void*, size_t)>("write");
  if (!ThePlan().Fails("write", fd)) return next(fd, data, size);
  return ThePlan().error == 0 ? next(fd, data, size / 2) : -1;
}
ssize_t writev(int fd, const iovec* parts, int count) {
  static auto* const next = Next<ssize_t(int, const iovec*, int)>("writev");
  if (!ThePlan().Fails("writev", fd)) return next(fd, parts, count);
  return ThePlan().error == 0 ? next(fd, parts, std::max(1, count / 2)) : -1;
}

#define FAULTY_OPEN(name)                                                  \
  int name(const char* path, int flags, ...) {                             \
    static auto* const next = Next<int(const char*, int, ...)>(#name);     \
    va_list more;                                                          \
    va_start(more, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0; \
    va_end(more);                                                          \
    return ThePlan().Fails("open", path) ? -1 : next(path, flags, mode);   \
  }
FAULTY_OPEN(open)
FAULTY_OPEN(open64)
// Only this one needs memory: the system may refuse it.
int epoll_ctl(int poll, int what, int fd, epoll_event* event) noexcept {
  static auto* const next = Next<int(int, int, int, epoll_event*)>("epoll_ctl");
  if (what == EPOLL_CTL_ADD && ThePlan().Fails("epoll_ctl", fd)) return -1;
  return next(poll, what, fd, event);
}
DIR* opendir(const char* path) {
  static auto* const next = Next<DIR*(const char*)>("opendir");
  return ThePlan().Fails("opendir", path) ? nullptr : next(path);
}
int ioctl(int fd, unsigned long request, ...) noexcept {
  static auto* const next = Next<int(int, unsigned long, ...)>("ioctl");
  va_list more;
  va_start(more, request);
  void* argument = va_arg(more, void*);
  va_end(more);
  return ThePlan().Fails("ioctl", fd) ? -1 : next(fd, request, argument);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*), void* data) {
  using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const next = Next<Function>("pthread_create");
  return ThePlan().Fails("pthread_create", kThread) ? ThePlan().error
                                                    : next(thread, how, run, data);
}
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static auto* const next = Next<int(clockid_t, timespec*)>("clock_gettime");
  const int result = next(clock, time);
  if (clock == CLOCK_REALTIME && ThePlan().Fails("clock", kThread)) time->tv_sec += ThePlan().error;
  return result;
}
time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
}  // extern "C"

void* operator new(size_t size) {
  static auto* const next = Next<void*(size_t)>("_Znwm");
  if (ThePlan().Fails("new", kThread)) throw std::bad_alloc();
  return next(size);
}
