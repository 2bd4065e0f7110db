// A daemon. usage: platform_test_daemon idle | log COUNT | wake | property | fatal | segv
// Logs "a signal" on each SIGUSR1.
#define LOG_TAG "test.daemon"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <hardware_legacy/power.h>
#include <log/log.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

// Not in an unnamed namespace: their names have to be found.
__attribute__((noinline)) void FatalErrorNamed(std::string message) { LOG(FATAL) << message; }

__attribute__((noinline)) int ReadThroughNull(const volatile int* pointer) { return *pointer; }

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "idle";
  LOG(INFO) << "mode " << mode;
  ALOGW("a warning with %d", 17);
  ALOGD("not to be seen at level info");
  LOG(ERROR) << "two\nlines";
  if (mode == "wake") acquire_wake_lock(PARTIAL_WAKE_LOCK, "a_lock");
  if (mode == "property") android::base::SetProperty("persist.a", "b");
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
  kill(getpid(), SIGUSR1);  // kept for sigwait(): no other thread of a daemon takes it
  printf("ready\n");
  fflush(stdout);
  if (mode == "log") {
    for (int i = 0; i < atoi(argv[2]); ++i) LOG(INFO) << "line " << i << std::string(1000, 'x');
    return 0;
  }
  if (mode == "fatal") FatalErrorNamed("the reason of the end");
  if (mode == "segv") std::thread([] { ReadThroughNull(nullptr); }).join();
  for (int signal_number = 0; sigwait(&awaited, &signal_number) == 0;) LOG(INFO) << "a signal";
}
