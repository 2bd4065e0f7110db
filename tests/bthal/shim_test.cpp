#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/kernel_file.h"
#include "bthal/uart_rig.h"
#include "h4/hw_control.h"
#include "support/temp_dir.h"
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
using hwcontrol::BtHwControl;
using test::Bytes;
using test::UartRig;

void ExpectClosed() {
  EXPECT_EQ(shim::GetUserialType(), 3u);
  EXPECT_FALSE(shim::IsInitialized());
  EXPECT_FALSE(shim::IsUserialReady());
  EXPECT_TRUE(shim::SupportBaudRateChange());
  EXPECT_FALSE(shim::IsUserialAutoInit());
  EXPECT_EQ(shim::RequiredBaudRate(), 4000000u);
  const uint8_t byte = 0;
  EXPECT_EQ(shim::Send(1, &byte, 1, true), 0u);
}

TEST(Shim, OpenAndCloseManyTimes_LeavesNothing) {
  ExpectClosed();
  std::filesystem::create_directories(test::RootFolder() + "/sys/class/rfkill/rfkill0");
  test::ExpectNothingLeft("openings of the transport", 30, [] {
    UartRig rig;
    ASSERT_TRUE(rig.Open());
    EXPECT_TRUE(shim::IsInitialized());
    EXPECT_TRUE(shim::IsUserialReady());
    EXPECT_EQ(shim::GetUserialType(), 1u);
    std::vector<UartRig::Packet> expected;
    for (const test::Vector& v : test::LoadVectors("h4_packets.txt")) {
      expected.push_back({test::ParseHex(v.fields[0])[0], test::ParseHex(v.fields[1])});
      rig.pty().WriteToHost(test::Concat({expected.back().type}, expected.back().bytes));
    }
    rig.DeliverEvent({0x13, 0x01, 0x00});
    expected.push_back({4, {0x13, 0x01, 0x00}});
    EXPECT_EQ(rig.TakeReceived(), expected);
    // On two threads at once: it runs once, and both see it done.
    const auto close = [] {
      shim::Deinitialize();
      EXPECT_FALSE(shim::IsUserialReady());
    };
    std::thread other(close);
    close();
    other.join();
    ExpectClosed();
  });
}

// A stack that calls back from its own callback: the reader thread closes what it runs on, while
// another thread closes, too.
TEST(Shim, DeinitializeFromInsideACallback_NeitherHangsNorReadsFreedMemory) {
  int round = 0;
  test::ExpectNothingLeft("closings from inside a callback", 50, [&] {
    UartRig rig;  // for its port
    std::atomic<int> closed{0};
    const auto close = [&](const hidl_vec<uint8_t>&) {
      shim::Deinitialize();
      ++closed;
    };
    const auto nothing = [](const hidl_vec<uint8_t>&) {};
    ASSERT_NE(shim::InitializeHciHandle(close, nothing, nothing, nothing), nullptr);
    // Two events in one read: the second has nobody to go to any more.
    rig.pty().WriteToHost(test::ParseHex("04 13 01 00 04 13 01 00"));
    if (++round % 2 == 0) {
      ASSERT_TRUE(test::WaitFor([&] { return closed > 0; }));
    }
    shim::Deinitialize();
    ASSERT_TRUE(test::WaitFor([] { return !shim::IsUserialReady(); }));
    EXPECT_LE(closed, 1);
  });
}

// select() cannot watch it: nothing would ever be read.
TEST(Shim, PortWhoseDescriptorCannotBeWatched_IsNoOpenPort) {
  UartRig rig;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(FD_SETSIZE + 64, limit.rlim_max);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<android::base::unique_fd> taken;
  while (taken.empty() || taken.back().get() < FD_SETSIZE) {
    taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(taken.back().get(), 0);
  }
  EXPECT_FALSE(rig.Open());
  EXPECT_FALSE(shim::IsUserialReady());
  taken.clear();
  EXPECT_TRUE(rig.Open());
}

// The controller is switched off and on again at each opening, off at the close.
TEST(Shim, PowerSwitch_IsTheFirstOfTypeBluetooth) {
  const std::string rfkill = test::RootFolder() + "/sys/class/rfkill/rfkill";
  test::WriteFile(rfkill + "0/type", "wlan\n");
  test::WriteFile(rfkill + "0/state", "x");
  test::WriteFile(rfkill + "1/type", "bluetooth\n");
  test::KernelFile state("/sys/class/rfkill/rfkill1/state");
  {
    UartRig rig;
    ASSERT_TRUE(rig.Open());
  }
  EXPECT_EQ(state.Text(), "010");
  EXPECT_EQ(test::ReadFile(rfkill + "0/state"), "x");
  std::filesystem::remove_all(test::RootFolder() + "/sys/class/rfkill");
}

TEST(Shim, LineSpeed_StartsAt115200AndTakesTheThreeRatesOnly) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  const auto speed = [] {
    termios settings{};
    tcgetattr(BtHwControl::Get().UartFd(), &settings);
    EXPECT_TRUE((settings.c_cflag & CRTSCTS) != 0);
    EXPECT_EQ(settings.c_lflag & (ICANON | ECHO | ISIG), 0u);
    return cfgetospeed(&settings);
  };
  EXPECT_EQ(speed(), static_cast<speed_t>(B115200));
  const std::pair<uint32_t, speed_t> cases[] = {{3000000, B3000000}, {4000000, B4000000},
                                                {921600, B4000000},  {6000000, B4000000},
                                                {0, B4000000},       {115200, B115200}};
  for (const auto& [rate, expected] : cases) {
    shim::BaudrateChange(static_cast<UartBaudRate>(rate));
    EXPECT_EQ(speed(), expected) << rate;
  }
}

}  // namespace
