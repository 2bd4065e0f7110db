#include "coex_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/uart_rig.h"
#include "support/pty.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::coex_device::CoexDevice;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;

// The driver's end of the device.
struct Driver : test::LinkedPty {
  Driver() : LinkedPty(test::RootFolder() + "/dev/wbrc") {}
  void Notify(const std::string& hex) { WriteToHost(test::ParseHex(hex)); }
};

// What a notice leads to is seen in the whole service.
TEST(CoexDevice, OtherMessage_IsNamedAndLeadsToNothing) {
  Driver driver;
  test::LogCapture lines;
  bool called = false;
  CoexDevice device;
  ASSERT_TRUE(device.DeviceOpen([&] { called = true; }, 150));
  for (const test::Vector& v : test::LoadVectors("coexistence.txt")) {
    driver.Notify(v.fields[0]);
    std::string log;
    EXPECT_TRUE(test::WaitFor([&] {
      log += testing::PrintToString(lines.Take("coex_device"));
      return log.find(v.fields[1] + '"') != std::string::npos;
    })) << v.name
        << log;
  }
  EXPECT_EQ(device.DeviceClose(), 0);
  EXPECT_FALSE(called);
  EXPECT_TRUE(driver.TakeWritten().empty());
}

// A close that had to use force would take a second. Every other time the driver goes away first:
// the thread ends by itself.
TEST(CoexDevice, OpenAndCloseOrHangUpManyTimes_LeavesNothing) {
  CoexDevice device;
  EXPECT_FALSE(device.DeviceOpen([] {}, 0)) << "there is none";
  const int threads = test::CountThreads(getpid());
  int round = 0;
  test::ExpectNothingLeft("openings of the coexistence device", 100, [&] {
    Driver driver;
    const auto start = steady_clock::now();
    ASSERT_TRUE(device.DeviceOpen([] {}, 100));
    ASSERT_TRUE(device.DeviceOpen([] {}, 200));  // while it is open: another callback and delay
    EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) == threads + 1; }));
    if (++round % 2 == 1) {
      driver.HangUp();
      return;
    }
    ASSERT_EQ(device.DeviceClose(), 0);
    ASSERT_EQ(device.DeviceClose(), 0);
    ASSERT_LT(steady_clock::now() - start, std::chrono::seconds(1));
  });
}

// The thread does not leave: in the callback, which never returns, or in the delay. The close asks
// it to after a second, which ends the delay, and lets it go after another one. In a process of its
// own: the thread stays. Argument: "callback" or "delay".
CHILD_CASE(CoexStuck) {
  const bool in_callback = arguments[0] == "callback";
  Driver driver;
  CoexDevice device;
  std::atomic<bool> inside{false};
  const auto callback = [&] {
    inside = true;
    while (in_callback) pause();
  };
  if (!device.DeviceOpen(callback, 600000)) return 1;
  driver.Notify("01 00 01 43");
  if (!test::WaitFor([&] { return inside.load(); })) return 2;
  const auto start = steady_clock::now();
  device.DeviceClose();
  const bool let_go = steady_clock::now() - start > std::chrono::milliseconds(1900);
  const bool acknowledged = !driver.TakeWritten().empty();
  fflush(stdout);
  _exit(let_go == in_callback && !acknowledged ? 0 : 3);
}

TEST(CoexDevice, ThreadThatDoesNotLeave_IsSignalledThenLetGo) {
  for (const char* where : {"callback", "delay"}) {
    SCOPED_TRACE(where);
    test::TempDir root;
    const test::ChildRun run = test::RunChild("CoexStuck", root.path(), {where});
    EXPECT_EQ(run.result.exit_code, 0) << run.output;
    EXPECT_THAT(run.output, HasSubstr("coex_close_timeout"));
    EXPECT_THAT(run.output, Not(HasSubstr("ReportBqrError")));
  }
}

}  // namespace
