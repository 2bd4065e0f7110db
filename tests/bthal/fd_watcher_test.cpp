#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/child_process.h"
#include "support/wait.h"
#include "transport/async_fd_watcher.h"

namespace {

using android::hardware::bluetooth::async::AsyncFdWatcher;

// A descriptor whose signals the watching function takes and counts.
struct Source {
  ~Source() { close(fd); }
  void Watch(AsyncFdWatcher& watcher) {
    const auto take = [this](int ready) {
      eventfd_t value;
      if (eventfd_read(ready, &value) == 0) ++taken;
    };
    ASSERT_EQ(watcher.WatchFdForNonBlockingReads(fd, take), 0);
  }
  bool Serves(int count) {
    EXPECT_EQ(eventfd_write(fd, 1), 0);
    return test::WaitFor([&] { return taken == count; });
  }

  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::atomic<int> taken{0};
};

// Starting and stopping is tested with the transport.
TEST(FdWatcher, Descriptors_ShareTheThreadUntilTheyAreStopped) {
  Source first, second;
  AsyncFdWatcher watcher;
  first.Watch(watcher);
  EXPECT_TRUE(first.Serves(1));
  const int threads = test::CountThreads(getpid());
  second.Watch(watcher);
  EXPECT_TRUE(second.Serves(1));
  EXPECT_TRUE(first.Serves(2));
  EXPECT_EQ(test::CountThreads(getpid()), threads);
  watcher.StopWatchingFileDescriptor(first.fd);
  eventfd_write(first.fd, 1);
  EXPECT_TRUE(second.Serves(2));
  EXPECT_EQ(first.taken, 2);
  watcher.StopWatchingFileDescriptors();
}

TEST(FdWatcher, StopWhileACallbackRuns_WaitsForIt) {
  Source source;
  AsyncFdWatcher watcher;
  std::atomic<bool> inside{false}, go_on{false}, finished{false};
  const auto callback = [&](int) {
    inside = true;
    test::WaitFor([&] { return go_on.load(); });
    finished = true;
  };
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.fd, callback), 0);
  eventfd_write(source.fd, 1);
  ASSERT_TRUE(test::WaitFor([&] { return inside.load(); }));
  std::thread stopper([&] {
    watcher.StopWatchingFileDescriptors();
    EXPECT_TRUE(finished);
  });
  go_on = true;
  stopper.join();
}

}  // namespace
