#include "bring_up/low_power.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "base/timer.h"
#include "base/wake_lock.h"
#include "bthal/child_case.h"
#include "bthal/kernel_file.h"
#include "support/temp_dir.h"
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
namespace shim = android::hardware::bluetooth::hci::shim;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class LowPowerMode : public testing::Test {
 protected:
  ~LowPowerMode() override { low_power_.Teardown(); }

  test::LowPowerFiles files_;
  LowPower low_power_{
      {shim::LpmSetup, shim::LpmTeardown, shim::LpmSuspend, shim::LpmWakeUp, shim::IsLpmRunning},
      [](const LowPower::Awake&) {}};
};

TEST_F(LowPowerMode, OffOrRefused_WakeUpTouchesNothing) {
  EXPECT_TRUE(low_power_.WakeUp());
  EXPECT_TRUE(shim::LpmWakeUp());
  EXPECT_TRUE(shim::LpmSuspend());
  EXPECT_EQ(files_.line.Text() + files_.driver.Text(), "");
  low_power_.Setup([] { return false; });
  EXPECT_FALSE(shim::IsLpmRunning());
  EXPECT_EQ(files_.driver.Text(), "10");
  EXPECT_TRUE(low_power_.WakeUp());
  EXPECT_EQ(files_.line.Text(), "1");
  EXPECT_EQ(files_.lock.Text(), "");
}

TEST_F(LowPowerMode, LoneTransmission_SuspendsAfterTwoPeriods) {
  low_power_.Setup([] { return true; });
  EXPECT_EQ(files_.driver.Text(), "1");
  EXPECT_EQ(files_.line.Text(), "1");
  const auto start = steady_clock::now();
  EXPECT_TRUE(low_power_.WakeUp());
  EXPECT_TRUE(low_power_.WakeUp());  // awake already: nothing is written
  EXPECT_EQ(files_.line.Text(), "11");
  EXPECT_FALSE(files_.WakeLockReleased());
  EXPECT_TRUE(files_.line.WaitForText("110"));
  EXPECT_GE(steady_clock::now() - start, milliseconds(1600));
  EXPECT_TRUE(test::WaitFor([&] { return files_.WakeLockReleased(); }));
  // And once more, up to a tear-down: the timer was only disarmed.
  EXPECT_TRUE(low_power_.WakeUp());
  EXPECT_EQ(files_.line.Text(), "1101");
  EXPECT_FALSE(files_.WakeLockReleased());
  low_power_.Teardown();
  EXPECT_TRUE(files_.WakeLockReleased());
  EXPECT_EQ(files_.driver.Text(), "10");
  EXPECT_TRUE(low_power_.WakeUp());
  EXPECT_EQ(files_.line.Text(), "1101");
}

// One lock for all users: the platform is asked at the first and the last.
TEST_F(LowPowerMode, WakeLock_CountsItsUses) {
  WakeLock& lock = WakeLock::Get();
  lock.Acquire();
  const std::string once = files_.lock.Text();
  lock.Acquire();
  lock.Release();
  EXPECT_FALSE(files_.WakeLockReleased());
  lock.Release();
  EXPECT_TRUE(files_.WakeLockReleased());
  EXPECT_EQ(files_.lock.Text(), once);
}

TEST_F(LowPowerMode, WakeUpsAndTeardownsOfManyThreads_EndReleased) {
  const int rounds = test::Count("low-power cycles", 60);
  for (int i = 0; i < rounds; ++i) {
    low_power_.Setup([] { return true; });
    std::thread sender([&] {
      for (int k = 0; k < 50; ++k) low_power_.WakeUp();
    });
    std::thread closer([&] { low_power_.Teardown(); });
    sender.join();
    closer.join();
  }
  EXPECT_EQ(test::CountOf("bthal_wakelock", files_.lock.Text()),
            test::CountOf("bthal_wakelock", files_.unlock.Text()));
  EXPECT_FALSE(shim::IsLpmRunning());
}

// A transport that cannot wake the controller, or put it to sleep, ends the low-power mode.
TEST_F(LowPowerMode, LineThatFails_IsTornDownOnceAndLeavesNoWakeLock) {
  for (const bool wakes : {false, true}) {
    SCOPED_TRACE(wakes ? "suspend" : "wake-up");
    std::atomic<int> wake_ups{0}, teardowns{0};
    std::atomic<bool> running{true};
    LowPower low_power({[] { return true; },
                        [&] {
                          running = false;
                          ++teardowns;
                        },
                        [] { return false; },
                        [&] {
                          ++wake_ups;
                          return wakes;
                        },
                        [&] { return running.load(); }},
                       [](const LowPower::Awake&) {});
    low_power.Setup([] { return true; });
    EXPECT_EQ(low_power.WakeUp(), wakes);
    ASSERT_TRUE(
        test::WaitFor([&] { return teardowns == 1; }, std::chrono::seconds(wakes ? 10 : 0)));
    ASSERT_TRUE(test::WaitFor([&] { return files_.WakeLockReleased(); }));
    EXPECT_TRUE(low_power.WakeUp()) << "off: nothing is to be woken";
    EXPECT_EQ(wake_ups, 1);
    EXPECT_EQ(teardowns, 1);
  }
}

// Low power is torn down between a sender's look at the line and the wake lock that it takes.
TEST_F(LowPowerMode, TeardownInTheMiddleOfAWakeUp_LeavesNoWakeLock) {
  std::atomic<bool> torn{false};
  std::thread closer;
  LowPower* tested = nullptr;
  LowPower low_power(
      {[] { return true; }, [&] { torn = true; }, [] { return true; }, [] { return true; },
       [&] {
         closer = std::thread([&] { tested->Teardown(); });
         return test::WaitFor([&] { return torn.load(); });
       }},
      [](const LowPower::Awake&) {});
  tested = &low_power;
  low_power.Setup([] { return true; });
  EXPECT_TRUE(low_power.WakeUp());
  closer.join();
  EXPECT_EQ(files_.lock.Text(), files_.unlock.Text());
}

TEST(LowPowerLine, FirstWriteFails_IsOffForTheSession) {
  const std::string line = test::RootFolder() + "/proc/bluetooth/sleep/btwrite";
  const test::KernelFile driver("/proc/bluetooth/sleep/lpm"), lock("/sys/power/wake_lock");
  std::filesystem::create_symlink("/dev/full", line);
  EXPECT_FALSE(shim::LpmSetup());
  EXPECT_FALSE(shim::IsLpmRunning());
  std::filesystem::remove(line);
}

TEST(TimerThread, FiresOnceOrPeriodicallyAndNotOnceDisarmed) {
  std::atomic<int> fired{0};
  const auto timer = Timer::Create("test", [&] { ++fired; });
  ASSERT_NE(timer, nullptr);
  const auto start = steady_clock::now();
  timer->Arm(milliseconds(40), milliseconds(0));
  EXPECT_TRUE(test::WaitFor([&] { return fired == 1; }));
  EXPECT_GE(steady_clock::now() - start, milliseconds(40));
  timer->Arm(milliseconds(1), milliseconds(5));
  EXPECT_TRUE(test::WaitFor([&] { return fired >= 5; }));
  timer->Disarm();
  std::atomic<bool> other{false};
  const int at_disarm = fired;
  const auto later = Timer::Create("later", [&] { other = true; });
  later->Arm(milliseconds(60), milliseconds(0));
  EXPECT_TRUE(test::WaitFor([&] { return other.load(); }));
  EXPECT_LE(fired, at_disarm + 1) << "one callback may have been under way";
}

// A stall of some periods: the calls that it has delayed do not follow each other at once.
TEST(TimerThread, StalledCallback_IsNotMadeUpFor) {
  constexpr milliseconds kPeriod{40};
  std::mutex lock;
  std::vector<steady_clock::time_point> starts;
  const auto timer = Timer::Create("test", [&] {
    const std::lock_guard<std::mutex> guard(lock);
    starts.push_back(steady_clock::now());
    if (starts.size() == 1) std::this_thread::sleep_for(5 * kPeriod);  // the stall itself
  });
  timer->Arm(milliseconds(1), kPeriod);
  ASSERT_TRUE(test::WaitFor([&] {
    const std::lock_guard<std::mutex> guard(lock);
    return starts.size() >= 4;
  }));
  timer->Disarm();
  const std::lock_guard<std::mutex> guard(lock);
  EXPECT_GE(starts[3] - starts[2], kPeriod);
}

// How often the thread of a name has gone to sleep so far.
int SleepsOf(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (test::ReadFile((task.path() / "comm").string()) != name + "\n") continue;
    const std::string status = test::ReadFile((task.path() / "status").string());
    const std::string field = "\nvoluntary_ctxt_switches:";
    return std::stoi(status.substr(status.find(field) + field.size()));
  }
  return -1;
}

// As each packet of a burst does.
TEST(TimerThread, PutOffAgainAndAgain_SleepsOnAndStillFires) {
  std::atomic<int> fired{0};
  const auto timer = Timer::Create("put_off", [&] { ++fired; });
  ASSERT_NE(timer, nullptr);
  timer->Arm(std::chrono::seconds(60), milliseconds(0));
  int sleeps = 0;
  const auto asleep = [&] {
    const int before = std::exchange(sleeps, SleepsOf("put_off"));
    return before > 0 && sleeps == before;
  };
  ASSERT_TRUE(test::WaitFor(asleep));
  for (int i = 0; i < 1000; ++i) timer->Arm(std::chrono::seconds(60), milliseconds(0));
  EXPECT_EQ(SleepsOf("put_off"), sleeps);
  timer->Arm(milliseconds(30), milliseconds(0));
  timer->Arm(milliseconds(60), milliseconds(0));
  const auto start = steady_clock::now();
  EXPECT_TRUE(test::WaitFor([&] { return fired == 1; }));
  EXPECT_GE(steady_clock::now() - start, milliseconds(59));
}

TEST(TimerThread, DestructionWaitsForARunningCallback) {
  std::atomic<bool> inside{false}, go_on{false}, finished{false};
  auto timer = Timer::Create("test", [&] {
    inside = true;
    test::WaitFor([&] { return go_on.load(); });
    finished = true;
  });
  timer->Arm(milliseconds(0), milliseconds(0));
  ASSERT_TRUE(test::WaitFor([&] { return inside.load(); }));
  std::thread destroyer([&] {
    timer.reset();
    EXPECT_TRUE(finished);
  });
  go_on = true;
  destroyer.join();
}

TEST(TimerThread, DestroyedInItsOwnCallback_EndsItsThread) {
  test::ExpectNothingLeft("timers destroyed in their callback", 300, [] {
    std::unique_ptr<Timer> timer;
    std::atomic<bool> gone{false};
    timer = Timer::Create("test", [&] {
      timer.reset();
      gone = true;
    });
    timer->Arm(milliseconds(0), milliseconds(1));
    ASSERT_TRUE(test::WaitFor([&] { return gone.load(); }));
  });
}

}  // namespace
