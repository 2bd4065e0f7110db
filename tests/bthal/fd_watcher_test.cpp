#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "bthal/child_case.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "transport/async_fd_watcher.h"

namespace {

using android::hardware::bluetooth::async::AsyncFdWatcher;

// A pipe whose bytes are counted by its watching function.
struct Source {
  Source() {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    read_fd = fds[0];
    write_fd = fds[1];
  }
  ~Source() {
    close(read_fd);
    close(write_fd);
  }
  void Signal() { EXPECT_EQ(write(write_fd, "x", 1), 1); }
  void Take(int fd) {
    EXPECT_EQ(fd, read_fd);
    char byte;
    if (read(fd, &byte, 1) == 1) ++taken;
  }
  bool WaitTaken(int count) {
    return test::WaitFor([&] { return taken >= count; });
  }
  AsyncFdWatcher::ReadCallback Taker() {
    return [this](int fd) { Take(fd); };
  }

  int read_fd, write_fd;
  std::atomic<int> taken{0};
};

class FdWatcher : public testing::Test {
 protected:
  ~FdWatcher() override { watcher_.StopWatchingFileDescriptors(); }
  void Watch(Source& source) { Watch(source.read_fd, source.Taker()); }
  void Watch(int fd, const AsyncFdWatcher::ReadCallback& callback) {
    ASSERT_EQ(watcher_.WatchFdForNonBlockingReads(fd, callback), 0);
  }

  AsyncFdWatcher watcher_;
  Source source_;
};

TEST_F(FdWatcher, StartAndStopManyTimes_LeavesNothing) {
  int starts = 0;
  test::ExpectNothingLeft("starts of the watcher", 500, [&] {
    Watch(source_);
    source_.Signal();
    ASSERT_TRUE(source_.WaitTaken(++starts));
    watcher_.StopWatchingFileDescriptors();
    watcher_.StopWatchingFileDescriptors();
  });
  source_.Signal();
  EXPECT_EQ(source_.taken, starts);
}

TEST_F(FdWatcher, SecondDescriptor_SharesTheThreadAndIsServedAtOnce) {
  Source second;
  Watch(source_);
  source_.Signal();
  ASSERT_TRUE(source_.WaitTaken(1));
  const int threads = test::CountThreads(getpid());
  Watch(second);
  second.Signal();
  EXPECT_TRUE(second.WaitTaken(1));
  source_.Signal();
  EXPECT_TRUE(source_.WaitTaken(2));
  EXPECT_EQ(test::CountThreads(getpid()), threads);

  watcher_.StopWatchingFileDescriptor(source_.read_fd);
  source_.Signal();
  second.Signal();
  EXPECT_TRUE(second.WaitTaken(2));
  EXPECT_EQ(source_.taken, 2);
  // Watched again by another function, which takes its place.
  std::atomic<int> replaced{0};
  Watch(source_.read_fd, source_.Taker());
  Watch(source_.read_fd, [&](int fd) {
    char byte;
    if (read(fd, &byte, 1) == 1) ++replaced;
  });
  EXPECT_TRUE(test::WaitFor([&] { return source_.taken + replaced == 3; }));
  source_.Signal();
  EXPECT_TRUE(test::WaitFor([&] { return replaced > 0 && source_.taken + replaced == 4; }));
}

TEST_F(FdWatcher, StopFromInsideTheCallback_EndsTheRunAndAllowsANewOne) {
  Source second;
  int stops = 0;
  test::ExpectNothingLeft("stops from inside a callback", 300, [&] {
    // Both are readable, so the second one's turn would come in the same pass.
    source_.Signal();
    second.Signal();
    std::atomic<bool> stopped{false};
    Watch(second.read_fd, [&](int fd) {
      if (!stopped) second.Take(fd);
    });
    Watch(source_.read_fd, [&](int fd) {
      source_.Take(fd);
      watcher_.StopWatchingFileDescriptors();
      stopped = true;
    });
    ASSERT_TRUE(test::WaitFor([&] { return stopped.load(); }));
    ASSERT_TRUE(source_.WaitTaken(++stops));
  });
}

TEST_F(FdWatcher, StopWhileACallbackRuns_WaitsForIt) {
  std::atomic<bool> inside{false}, go_on{false}, finished{false};
  Watch(source_.read_fd, [&](int) {
    inside = true;
    test::WaitFor([&] { return go_on.load(); });
    finished = true;
  });
  source_.Signal();
  ASSERT_TRUE(test::WaitFor([&] { return inside.load(); }));
  std::thread stopper([&] {
    watcher_.StopWatchingFileDescriptors();
    EXPECT_TRUE(finished);
  });
  go_on = true;
  stopper.join();
}

TEST_F(FdWatcher, StartsAndStopsFromManyThreads_AgreeOnOneOwner) {
  const int rounds = test::Count("starts and stops a thread", 300);
  const int threads_before = test::CountThreads(getpid());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < rounds; ++i) {
        if ((i + t) % 2 == 0) {
          Watch(source_);
          source_.Signal();
        } else {
          watcher_.StopWatchingFileDescriptors();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  watcher_.StopWatchingFileDescriptors();
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads_before; }));
}

// A watcher that spun on it would have used all of the time; it takes none.
TEST_F(FdWatcher, DescriptorClosedWhileWatched_IsDropped) {
  const int closed = eventfd(0, EFD_CLOEXEC);
  testing::internal::CaptureStderr();
  Watch(source_);
  Watch(closed, [](int) {});
  source_.Signal();
  ASSERT_TRUE(source_.WaitTaken(1));
  close(closed);
  // Some turns, so that select() is asked with the closed number.
  for (int i = 2; i <= 6; ++i) {
    source_.Signal();
    ASSERT_TRUE(source_.WaitTaken(i));
  }
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      test::CountOf("descriptor " + std::to_string(closed) + " was closed while watched", log), 1u)
      << log;
}

}  // namespace
