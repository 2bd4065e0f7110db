#define LOG_TAG "bthal.tombstone"

#include "system/tombstone.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <execinfo.h>
#include <fcntl.h>
#include <log/log.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <system_error>
#include <thread>

#define BACKWARD_HAS_DW 1
#include <backward.hpp>

#include "root_folder/root_folder.h"
#include "system/log.h"

namespace bthal {
namespace {

using android::base::StringPrintf;

constexpr int kMaxFrames = 64;
constexpr int kFiles = 32;
constexpr int kWriteTimeS = 10;

// What the handler knows, for the thread that writes it down. The handler itself only collects
// addresses and waits: the crashed thread may hold any lock, the allocator's, too.
struct Crash {
  std::atomic<bool> taken{false};
  int signal = 0;
  int code = 0;
  void* fault_address = nullptr;
  uintptr_t instruction = 0;
  pid_t thread = 0;
  char thread_name[16] = {};
  void* frames[kMaxFrames] = {};
  int frame_count = 0;
  sem_t happened;
  sem_t written;
};
Crash crash;

uintptr_t InstructionOf(const void* context) {
  const auto* machine = &static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return static_cast<uintptr_t>(machine->gregs[REG_RIP]);
#elif defined(__aarch64__)
  return machine->pc;
#else
  (void)machine;
  return 0;
#endif
}

std::string Path(int number) {
  return root_folder::Resolve(StringPrintf("/data/tombstones/tombstone_%02d", number));
}

// The first free name, else that of the oldest file, which goes.
std::string FreePath() {
  std::string oldest = Path(0);
  time_t oldest_time = 0;
  for (int i = 0; i < kFiles; ++i) {
    struct stat status;
    std::string path = Path(i);
    if (lstat(path.c_str(), &status) != 0) return path;
    if (i == 0 || status.st_mtime < oldest_time) {
      oldest = path;
      oldest_time = status.st_mtime;
    }
  }
  unlink(oldest.c_str());
  return oldest;
}

std::string FrameText(backward::TraceResolver& resolver, int number, void* address, bool is_call) {
  // A return address lies behind its call, possibly in another function.
  void* inside = is_call ? static_cast<char*>(address) - 1 : address;
  const backward::ResolvedTrace frame =
      resolver.resolve(backward::ResolvedTrace(backward::Trace(inside, 0)));
  std::string text =
      StringPrintf("    #%02d pc %016lx  %s", number, reinterpret_cast<unsigned long>(address),
                   frame.object_filename.c_str());
  const std::string& function =
      frame.object_function.empty() ? frame.source.function : frame.object_function;
  if (!function.empty()) text += " (" + function + ")";
  if (!frame.source.filename.empty()) {
    text += " " + frame.source.filename + ":" + std::to_string(frame.source.line);
  }
  return text + "\n";
}

std::string Text() {
  time_t now = time(nullptr);
  char date[32];
  tm local{};
  strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S%z", localtime_r(&now, &local));
  std::string command;
  android::base::ReadFileToString("/proc/self/cmdline", &command);
  std::replace(command.begin(), command.end(), '\0', ' ');

  std::string text = "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***\n";
  text += StringPrintf("Timestamp: %s\nCmdline: %s\n", date, command.c_str());
  text += StringPrintf("pid: %d, tid: %d, name: %s\n", getpid(), crash.thread, crash.thread_name);
  text += StringPrintf("signal %d (SIG%s), code %d, fault addr %p\n", crash.signal,
                       sigabbrev_np(crash.signal), crash.code, crash.fault_address);
  if (*log::AbortMessage() != '\0') {
    text += StringPrintf("Abort message: '%s'\n", log::AbortMessage());
  }
  text += "\nbacktrace:\n";

  // The handler's own frames come first.
  int first = 0;
  while (first < crash.frame_count &&
         reinterpret_cast<uintptr_t>(crash.frames[first]) != crash.instruction) {
    ++first;
  }
  const bool found = first < crash.frame_count;
  if (!found) first = 0;
  backward::TraceResolver resolver;
  for (int i = first; i < crash.frame_count; ++i) {
    text += FrameText(resolver, i - first, crash.frames[i], !found || i != first);
  }
  return text;
}

void WriteTombstone() {
  const std::string path = FreePath();
  const android::base::unique_fd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640));
  if (file.get() < 0) {
    PLOG(ERROR) << path;
  } else if (android::base::WriteStringToFd(Text(), file)) {
    LOG(ERROR) << "wrote " << path;
  }
}

void OnFatalSignal(int signal, siginfo_t* info, void* context) {
  // One report: a thread that crashes meanwhile waits for the end of the process.
  while (crash.taken.exchange(true)) pause();
  crash.signal = signal;
  crash.code = info->si_code;
  crash.fault_address = info->si_code > 0 ? info->si_addr : nullptr;
  crash.instruction = InstructionOf(context);
  crash.thread = gettid();
  pthread_getname_np(pthread_self(), crash.thread_name, sizeof crash.thread_name);
  crash.frame_count = backtrace(crash.frames, kMaxFrames);
  sem_post(&crash.happened);
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kWriteTimeS;
  while (sem_clockwait(&crash.written, CLOCK_MONOTONIC, &deadline) != 0 && errno == EINTR) {
  }
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigaction(signal, &fallback, nullptr);
  raise(signal);  // delivered when the handler returns
}

// Such as for want of memory: the tombstone tells of what.
[[noreturn]] void OnUncaughtException() {
  try {
    if (const std::exception_ptr exception = std::current_exception()) {
      std::rethrow_exception(exception);
    }
  } catch (const std::exception& exception) {
    LOG(FATAL) << "uncaught exception: " << exception.what();
  } catch (...) {
  }
  abort();
}

}  // namespace

void InstallTombstones() {
  mkdir(root_folder::Resolve("/data").c_str(), 0771);
  mkdir(root_folder::Resolve("/data/tombstones").c_str(), 0771);
  sem_init(&crash.happened, 0, 0);
  sem_init(&crash.written, 0, 0);
  void* warm_up[1];
  backtrace(warm_up, 1);  // loads what the handler must not load

  // The process's signals are for its other threads: one that blocks a signal in order to wait for
  // it must not lose it to this one.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  bool is_ready = false;
  try {
    std::thread writer([] {
      while (sem_wait(&crash.happened) != 0) {
      }
      WriteTombstone();
      sem_post(&crash.written);
    });
    pthread_setname_np(writer.native_handle(), "bthal-tombstone");
    writer.detach();
    is_ready = true;
  } catch (const std::system_error& error) {
    LOG(ERROR) << "a crash will leave no tombstone: " << error.what();
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!is_ready) return;
  std::set_terminate(OnUncaughtException);

  // A stack overflow of the main thread can be told, too; other threads have no spare stack.
  static char spare_stack[64 * 1024];
  stack_t stack{};
  stack.ss_sp = spare_stack;
  stack.ss_size = sizeof spare_stack;
  sigaltstack(&stack, nullptr);

  struct sigaction action {};
  action.sa_sigaction = OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  sigaction(SIGABRT, &action, nullptr);
#ifndef BTHAL_SANITIZED  // which report these themselves, and better
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(signal, &action, nullptr);
#endif
}

}  // namespace bthal
