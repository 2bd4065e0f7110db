#include <gtest/gtest.h>
#include <termios.h>

#include <atomic>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/uart_rig.h"
#include "h4/hw_control.h"
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
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
  test::ExpectNothingLeft("openings of the transport", 30, [] {
    UartRig rig;
    ASSERT_TRUE(rig.Open());
    EXPECT_TRUE(shim::IsInitialized());
    EXPECT_TRUE(shim::IsUserialReady());
    EXPECT_EQ(shim::GetUserialType(), 1u);
    termios settings{};
    tcgetattr(hwcontrol::BtHwControl::Get().UartFd(), &settings);
    EXPECT_TRUE((settings.c_cflag & CRTSCTS) != 0);
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
    // Two events in one read: the second has nobody to go to any more, unless the other thread was
    // about to close and the reader, which cannot wait for that, was sent on.
    rig.pty().WriteToHost(test::ParseHex("04 13 01 00 04 13 01 00"));
    const bool reader_is_alone = ++round % 2 == 0;
    if (reader_is_alone) {
      ASSERT_TRUE(test::WaitFor([&] { return closed > 0; }));
    }
    shim::Deinitialize();
    ASSERT_TRUE(test::WaitFor([] { return !shim::IsUserialReady(); }));
    EXPECT_LE(closed, reader_is_alone ? 1 : 2);
  });
}

}  // namespace
