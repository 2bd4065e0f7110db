// What needs the service's own time-outs to pass.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "bring_up/btzvk_command.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/child_process.h"

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

// A pipe that holds one page, and the flags of its end that is written to.
struct SmallPipe {
  SmallPipe() {
    if (!android::base::Pipe(&read_end, &write_end)) throw std::runtime_error("no pipe");
    fcntl(write_end.get(), F_SETPIPE_SZ, 4096);
  }
  int Flags() const { return fcntl(write_end.get(), F_GETFL); }

  android::base::unique_fd read_end, write_end;
};

// Somebody else's calls wait meanwhile: for a reader that takes nothing 2 s, for others not at all.
TEST(DebugReportSlow, ReaderThatDoesNotRead_EndsTheReportWithOneLine) {
  using V1_1::zvkbtlinux::debug::DebugCentral;
  const std::string record(100, 'r');
  for (int i = 0; i < 400; ++i) {
    DebugCentral::Get().UpdateRecord(V1_1::zvkbtlinux::debug::AnchorType::kClose, record);
  }
  const auto dump = [](int fd, std::string* log) {
    testing::internal::CaptureStderr();
    const auto start = steady_clock::now();
    DebugCentral::Get().Dump(fd);
    *log = testing::internal::GetCapturedStderr();
    return steady_clock::now() - start;
  };
  std::string log;
  SmallPipe unread;
  const int flags = unread.Flags();
  const auto taken = dump(unread.write_end.get(), &log);
  EXPECT_GE(taken, milliseconds(2000));
  EXPECT_LT(taken, milliseconds(4000));
  EXPECT_EQ(test::CountOf("the reader of the debug report is too slow: ", log), 1u) << log;
  EXPECT_EQ(unread.Flags(), flags);

  SmallPipe abandoned;
  abandoned.read_end.reset();
  EXPECT_LT(dump(abandoned.write_end.get(), &log), milliseconds(2000));
  EXPECT_EQ(test::CountOf("the reader of the debug report is gone: Broken pipe", log), 1u) << log;

  SmallPipe read;
  std::string report;
  std::thread reader([&] { android::base::ReadFdToString(read.read_end, &report); });
  dump(read.write_end.get(), &log);
  read.write_end.reset();
  reader.join();
  EXPECT_EQ(test::CountOf(": " + record + "\n", report), 400u);
  EXPECT_THAT(report, HasSubstr("*    End Of Bluetooth Activities Reports    *"));
  EXPECT_THAT(log, testing::Not(HasSubstr("the reader of the debug report")));
}

}  // namespace
