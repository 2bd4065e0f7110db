#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <thread>

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

// Stops the watcher whatever the test does.
struct Stopper {
  AsyncFdWatcher& watcher;
  ~Stopper() { watcher.StopWatchingFileDescriptors(); }
};

TEST(FdWatcher, StartAndStopManyTimes_LeavesNothing) {
  AsyncFdWatcher watcher;
  Source source;
  const int threads = test::CountThreads(getpid());
  const int descriptors = test::CountDescriptors(getpid());
  const int rounds = test::Count("starts of the watcher", 500);
  for (int i = 1; i <= rounds; ++i) {
    ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.read_fd, source.Taker()), 0);
    source.Signal();
    ASSERT_TRUE(source.WaitTaken(i));
    watcher.StopWatchingFileDescriptors();
    watcher.StopWatchingFileDescriptors();
  }
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
  EXPECT_EQ(test::CountDescriptors(getpid()), descriptors);
  source.Signal();
  EXPECT_EQ(source.taken, rounds);
}

TEST(FdWatcher, SecondDescriptor_SharesTheThreadAndIsServedAtOnce) {
  AsyncFdWatcher watcher;
  Source first, second;
  const Stopper stopper{watcher};
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(first.read_fd, first.Taker()), 0);
  first.Signal();
  ASSERT_TRUE(first.WaitTaken(1));
  const int threads = test::CountThreads(getpid());
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(second.read_fd, second.Taker()), 0);
  second.Signal();
  EXPECT_TRUE(second.WaitTaken(1));
  first.Signal();
  EXPECT_TRUE(first.WaitTaken(2));
  EXPECT_EQ(test::CountThreads(getpid()), threads);

  watcher.StopWatchingFileDescriptor(first.read_fd);
  first.Signal();
  second.Signal();
  EXPECT_TRUE(second.WaitTaken(2));
  EXPECT_EQ(first.taken, 2);
}

TEST(FdWatcher, WatchingAgain_ReplacesTheFunction) {
  AsyncFdWatcher watcher;
  Source source;
  std::atomic<int> replaced{0};
  const Stopper stopper{watcher};
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.read_fd, source.Taker()), 0);
  source.Signal();
  ASSERT_TRUE(source.WaitTaken(1));
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.read_fd,
                                               [&](int fd) {
                                                 char byte;
                                                 if (read(fd, &byte, 1) == 1) ++replaced;
                                               }),
            0);
  source.Signal();
  EXPECT_TRUE(test::WaitFor([&] { return replaced == 1; }));
  EXPECT_EQ(source.taken, 1);
}

TEST(FdWatcher, StopFromInsideTheCallback_EndsTheRunAndAllowsANewOne) {
  AsyncFdWatcher watcher;
  Source first, second;
  const int threads = test::CountThreads(getpid());
  const int rounds = test::Count("stops from inside a callback", 300);
  for (int i = 1; i <= rounds; ++i) {
    // Both are readable, so the second one's turn would come in the same pass.
    first.Signal();
    second.Signal();
    std::atomic<bool> stopped{false};
    ASSERT_EQ(watcher.WatchFdForNonBlockingReads(second.read_fd,
                                                 [&](int fd) {
                                                   if (!stopped) second.Take(fd);
                                                 }),
              0);
    ASSERT_EQ(watcher.WatchFdForNonBlockingReads(first.read_fd,
                                                 [&](int fd) {
                                                   first.Take(fd);
                                                   watcher.StopWatchingFileDescriptors();
                                                   stopped = true;
                                                 }),
              0);
    ASSERT_TRUE(test::WaitFor([&] { return stopped.load(); }));
    ASSERT_TRUE(first.WaitTaken(i));
    ASSERT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
  }
}

TEST(FdWatcher, StopWhileACallbackRuns_WaitsForIt) {
  AsyncFdWatcher watcher;
  Source source;
  std::atomic<bool> inside{false}, go_on{false}, finished{false};
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.read_fd,
                                               [&](int) {
                                                 inside = true;
                                                 test::WaitFor([&] { return go_on.load(); });
                                                 finished = true;
                                               }),
            0);
  source.Signal();
  ASSERT_TRUE(test::WaitFor([&] { return inside.load(); }));
  std::thread stopper([&] {
    watcher.StopWatchingFileDescriptors();
    EXPECT_TRUE(finished);
  });
  go_on = true;
  stopper.join();
}

TEST(FdWatcher, StartsAndStopsFromManyThreads_AgreeOnOneOwner) {
  AsyncFdWatcher watcher;
  Source source;
  const int rounds = test::Count("starts and stops a thread", 300);
  const int threads_before = test::CountThreads(getpid());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < rounds; ++i) {
        if ((i + t) % 2 == 0) {
          watcher.WatchFdForNonBlockingReads(source.read_fd, source.Taker());
          source.Signal();
        } else {
          watcher.StopWatchingFileDescriptors();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  watcher.StopWatchingFileDescriptors();
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads_before; }));
}

// A watcher that spun on it would have used all of the time; it takes none.
TEST(FdWatcher, DescriptorClosedWhileWatched_IsDropped) {
  AsyncFdWatcher watcher;
  Source kept;
  const Stopper stopper{watcher};
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  testing::internal::CaptureStderr();
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(kept.read_fd, kept.Taker()), 0);
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(fds[0], [](int) {}), 0);
  kept.Signal();
  ASSERT_TRUE(kept.WaitTaken(1));
  // Two turns, so that select() is asked with the closed number.
  close(fds[0]);
  close(fds[1]);
  for (int i = 2; i <= 6; ++i) {
    kept.Signal();
    ASSERT_TRUE(kept.WaitTaken(i));
  }
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string line = "descriptor " + std::to_string(fds[0]) + " was closed while watched";
  const size_t at = log.find(line);
  EXPECT_NE(at, std::string::npos) << log;
  EXPECT_EQ(log.find(line, at + 1), std::string::npos) << "one warning only";
}

TEST(FdWatcher, DescriptorOutOfRange_IsRefused) {
  AsyncFdWatcher watcher;
  const Stopper stopper{watcher};
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_cur <= FD_SETSIZE) {
    limit.rlim_cur = FD_SETSIZE + 16;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  Source source;
  const int high = fcntl(source.read_fd, F_DUPFD_CLOEXEC, FD_SETSIZE);
  ASSERT_GE(high, FD_SETSIZE);
  const int threads = test::CountThreads(getpid());
  for (const int fd : {high, -1}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(watcher.WatchFdForNonBlockingReads(fd, [](int) {}), -1);
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
  }
  EXPECT_EQ(test::CountThreads(getpid()), threads);
  close(high);
  // The watcher still works.
  ASSERT_EQ(watcher.WatchFdForNonBlockingReads(source.read_fd, source.Taker()), 0);
  source.Signal();
  EXPECT_TRUE(source.WaitTaken(1));
}

}  // namespace
