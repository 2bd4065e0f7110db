// What needs the service's own time-outs to pass.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bring_up/btzvk_command.h"
#include "bthal/uart_rig.h"

namespace {

using namespace android::hardware::bluetooth;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

// A Command Status, or the completion of another command, does not end the wait.
TEST(VendorCommandSlow, NoAnswer_EndsAfterTwoSecondsAsStatus3) {
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  rig.pty().WriteToHost(test::ParseHex("04 0F 04 00 01 79 FC 04 0E 04 01 14 0C 00"));
  testing::internal::CaptureStderr();
  const auto start = steady_clock::now();
  EXPECT_EQ(btzvk_send_command_wait_complete(rig.flow().get(), 0xFC79, 0, nullptr), 3);
  const auto taken = steady_clock::now() - start;
  EXPECT_GE(taken, milliseconds(2000));
  EXPECT_LT(taken, milliseconds(4000));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("btzvk_send_command_wait_complete: 0xfc79 LEN 0x00 Result 0x03"));
}

// It stays at the front of the queue: what is queued behind it does not go out.
TEST(VendorCommandSlow, UnansweredCommand_HoldsTheNextOne) {
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  EXPECT_EQ(btzvk_send_command_wait_complete(rig.flow().get(), 0xFC79, 0, nullptr), 3);
  rig.pty().TakeWritten();
  EXPECT_EQ(btzvk_send_command_wait_complete(rig.flow().get(), 0x0C03, 0, nullptr), 3);
  EXPECT_TRUE(rig.pty().TakeWritten().empty());
  // The late answer reaches the stack, and releases it.
  rig.DeliverEvent(test::ParseHex("0E 04 01 79 FC 00"));
  EXPECT_EQ(rig.TakeReceived().size(), 1u);
  EXPECT_EQ(rig.pty().TakeWritten(), test::ParseHex("01 03 0C 00"));
}

}  // namespace
