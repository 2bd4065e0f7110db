#include "bring_up/low_power.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "base/timer.h"
#include "bthal/child_case.h"
#include "bthal/kernel_file.h"
#include "hci_flow_control.h"
#include "support/temp_dir.h"
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
using android::hardware::hidl_vec;
namespace shim = android::hardware::bluetooth::hci::shim;
using std::chrono::milliseconds;

class LowPowerMode : public testing::Test {
 protected:
  ~LowPowerMode() override { low_power_.Teardown(); }

  test::LowPowerFiles files_;
  LowPower low_power_{
      {shim::LpmSetup, shim::LpmTeardown, shim::LpmSuspend, shim::LpmWakeUp, shim::IsLpmRunning},
      [](const LowPower::Awake&) {}};
};

// The line takes nothing for longer than two periods: the rest of the packet is for a controller
// that is awake. It is woken once, by the packet before.
TEST_F(LowPowerMode, WriteThatIsHeldUp_KeepsTheControllerAwake) {
  low_power_.Setup([] { return true; });
  EXPECT_TRUE(low_power_.WakeUp());
  low_power_.Sent();
  const auto has_slept = [&] { return files_.line.Text() != "11"; };
  const auto flow =
      hci::HciFlowControl::Create({}, {[&](uint8_t, const uint8_t*, size_t length, bool) {
                                         EXPECT_FALSE(test::WaitFor(has_slept, milliseconds(2000)));
                                         return length;
                                       },
                                       [&] { low_power_.WakeUp(); }, [&] { low_power_.Sent(); }});
  flow->Connect([](const auto&) {});
  flow->Send(hci::HCI_PACKET_TYPE_ACL_DATA, hidl_vec<uint8_t>{0x01, 0x00, 0x00, 0x00}.data(), 4);
  EXPECT_TRUE(files_.line.WaitForText("110"));
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
    low_power.Sent();
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

}  // namespace
