#include "coex_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/pty.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::coex_device::CoexDevice;
using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using std::chrono::steady_clock;
using test::Bytes;
using testing::HasSubstr;
using testing::Not;

// The driver's end of the device.
struct Driver : test::LinkedPty {
  Driver() : LinkedPty(test::RootFolder() + "/dev/wbrc") {}
  void Notify(const std::string& hex) { WriteToHost(test::ParseHex(hex)); }
};

// Arguments: messages, delay in ms, whether the process ends of them.
CHILD_CASE(CoexMessage) {
  Driver driver;
  DebugCentral::Get().SetEventSink([&](const auto& event) {
    printf("written %s\n", test::ToHex(driver.TakeWritten()).c_str());
    printf("sink %s\n", test::ToHex(test::ToBytes(event)).c_str());
    fflush(stdout);
  });
  CoexDevice device;
  if (!device.DeviceOpen(
          [] {
            printf("callback\n");
            fflush(stdout);
          },
          std::stoi(arguments[1]))) {
    return 1;
  }
  for (const std::string& message : test::SplitTrimmed(arguments[0], ';')) {
    driver.Notify(message);
  }
  if (arguments[2] == "no") {
    const auto output = [] { return test::ReadFile("/proc/self/fd/2"); };
    if (!test::WaitFor([&] { return test::CountOf("Read wlbt driver event", output()) > 0; })) {
      return 2;
    }
    device.DeviceClose();
    printf("written %s\nclosed\n", test::ToHex(driver.TakeWritten()).c_str());
    return 0;
  }
  for (;;) pause();
}

TEST(CoexDevice, Message_RunsCallbackAcknowledgesAndEndsTheProcess) {
  for (const test::Vector& v : test::LoadVectors("coexistence.txt")) {
    SCOPED_TRACE(v.name);
    const bool calls = v.fields[1] == "yes", ends = v.fields[3] == "yes";
    test::CrashRoot root;
    const auto start = steady_clock::now();
    const test::ChildRun run =
        test::RunChild("CoexMessage", root.path(), {v.fields[0], "150", v.fields[3]});
    EXPECT_EQ(run.output.find("callback\n") != std::string::npos, calls) << run.output;
    EXPECT_THAT(run.output, HasSubstr("written " + v.fields[2] + "\n"));
    EXPECT_THAT(run.output, HasSubstr(v.fields[4]));
    if (ends) {
      EXPECT_EQ(run.result.signal, SIGKILL);
      EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(150)) << "the delay";
      EXPECT_THAT(run.output, HasSubstr("sink FF 04 58 05 00 7F\n"));
      // No files for this one.
      EXPECT_TRUE(root.CoreDumps().empty());
    } else {
      EXPECT_EQ(run.result.exit_code, 0);
      EXPECT_THAT(run.output, HasSubstr("closed\n"));
      EXPECT_THAT(run.output, Not(HasSubstr("sink")));
    }
  }
}

TEST(CoexDevice, WithoutTheDevice_OpenFails) {
  CoexDevice device;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(device.DeviceOpen([] {}, 0));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Failed to open the coex device!! Error: No such file or directory"));
  EXPECT_EQ(device.DeviceClose(), 0);
}

// A close that had to use force would take a second.
TEST(CoexDevice, OpenAndCloseManyTimes_LeavesNothing) {
  Driver driver;
  CoexDevice device;
  test::ExpectNothingLeft("openings of the coexistence device", 200, [&] {
    const auto start = steady_clock::now();
    ASSERT_TRUE(device.DeviceOpen([] {}, 100));
    ASSERT_TRUE(device.DeviceOpen([] {}, 200));  // while it is open: another callback and delay
    ASSERT_EQ(device.DeviceClose(), 0);
    ASSERT_EQ(device.DeviceClose(), 0);
    ASSERT_LT(steady_clock::now() - start, std::chrono::seconds(1));
  });
}

// The driver goes away: the thread ends by itself, and the device can be opened again.
TEST(CoexDevice, HangUp_EndsTheThreadAndANewOpenStartsOne) {
  CoexDevice device;
  test::ExpectNothingLeft("hang-ups of the driver", 20, [&] {
    const int threads = test::CountThreads(getpid());
    Driver gone;
    ASSERT_TRUE(device.DeviceOpen([] {}, 0));
    gone.HangUp();
    ASSERT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
    Driver driver;
    ASSERT_TRUE(device.DeviceOpen([] {}, 0));
    EXPECT_EQ(test::CountThreads(getpid()), threads + 1);
    ASSERT_EQ(device.DeviceClose(), 0);
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
