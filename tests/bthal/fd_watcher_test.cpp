#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>
#include <thread>

#include "support/wait.h"
#include "transport/async_fd_watcher.h"

namespace {

using android::hardware::bluetooth::async::AsyncFdWatcher;

// Starting and stopping is tested with the transport.
TEST(FdWatcher, StopWhileACallbackRuns_WaitsForIt) {
  for (const bool all : {false, true}) {
    const android::base::unique_fd fd(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    AsyncFdWatcher watcher;
    std::atomic<bool> inside{false}, go_on{false}, finished{false};
    const auto callback = [&](int) {
      inside = true;
      test::WaitFor([&] { return go_on.load(); });
      finished = true;
    };
    ASSERT_EQ(watcher.WatchFdForNonBlockingReads(fd.get(), callback), 0);
    ASSERT_TRUE(test::WaitFor([&] { return inside.load(); }));
    std::thread stopper([&] {
      if (!all) watcher.StopWatchingFileDescriptor(fd.get());
      if (all) watcher.StopWatchingFileDescriptors();
      EXPECT_TRUE(finished) << (all ? "all" : "one");
    });
    go_on = true;
    stopper.join();
    watcher.StopWatchingFileDescriptors();
  }
}

}  // namespace
