#include "coex_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::coex_device::CoexDevice;
using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using std::chrono::steady_clock;
using test::Bytes;
using testing::HasSubstr;
using testing::Not;

// The driver's end of "/dev/wbrc".
class Driver {
 public:
  Driver() {
    const std::string path = test::RootFolder() + "/dev/wbrc";
    std::filesystem::create_directories(test::RootFolder() + "/dev");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(pty_.path(), path);
  }
  ~Driver() { std::filesystem::remove(test::RootFolder() + "/dev/wbrc"); }
  test::Pty& pty() { return pty_; }
  void Notify(const std::string& hex) { pty_.WriteToHost(test::ParseHex(hex)); }

 private:
  test::Pty pty_;
};

int ThreadCount() { return test::CountThreads(getpid()); }

// Arguments: message, delay in ms, whether the process ends of it.
CHILD_CASE(CoexMessage) {
  Driver driver;
  DebugCentral::Get().SetEventSink([&](const auto& event) {
    printf("written %s\n", test::ToHex(driver.pty().TakeWritten()).c_str());
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
  driver.Notify(arguments[0]);
  if (arguments[2] == "no") {
    if (!test::WaitFor([&] { return driver.pty().Unread() == 0; })) return 2;
    device.DeviceClose();
    printf("written %s\nclosed\n", test::ToHex(driver.pty().TakeWritten()).c_str());
    return 0;
  }
  for (;;) pause();
}

TEST(CoexDevice, Message_RunsCallbackAcknowledgesAndEndsTheProcess) {
  for (const test::Vector& v : test::LoadVectors("coexistence.txt")) {
    SCOPED_TRACE(v.name);
    const bool calls = v.fields[1] == "yes", ends = v.fields[3] == "yes";
    test::TempDir root;
    std::filesystem::create_directories(root.path() + "/data/vendor/ssrdump/coredump");
    const auto start = steady_clock::now();
    const test::ChildRun run =
        test::RunChild("CoexMessage", root.path(), {v.fields[0], "150", v.fields[3]});
    EXPECT_EQ(run.output.find("callback\n") != std::string::npos, calls) << run.output;
    EXPECT_THAT(run.output, HasSubstr("written " + v.fields[2] + "\n"));
    if (ends) {
      EXPECT_EQ(run.result.signal, SIGKILL);
      EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(150)) << "the delay";
      EXPECT_THAT(run.output, HasSubstr("sink FF 04 58 05 00 7F\n"));
      EXPECT_THAT(run.output, HasSubstr("ReadEvent Sleep : 150 ms"));
      // No files for this one.
      EXPECT_TRUE(std::filesystem::is_empty(root.path() + "/data/vendor/ssrdump/coredump"));
    } else {
      EXPECT_EQ(run.result.exit_code, 0);
      EXPECT_THAT(run.output, HasSubstr("closed\n"));
      EXPECT_THAT(run.output, Not(HasSubstr("sink")));
    }
  }
}

// Messages that mean nothing leave the device listening.
CHILD_CASE(CoexManyMessages) {
  Driver driver;
  DebugCentral::Get().SetEventSink([](const auto&) {});
  CoexDevice device;
  if (!device.DeviceOpen([] {}, 0)) return 1;
  for (const char* message : {"02 00 01 42", "01 00 02 42", "01 00 01 44"}) driver.Notify(message);
  driver.Notify("01 00 01 42");
  for (;;) pause();
}

TEST(CoexDevice, IgnoredMessages_LeaveItListening) {
  test::TempDir root;
  const test::ChildRun run = test::RunChild("CoexManyMessages", root.path());
  EXPECT_EQ(run.result.signal, SIGKILL);
  EXPECT_THAT(run.output, HasSubstr("ReadEvent Got unexpected message"));
  EXPECT_THAT(run.output, HasSubstr("ReadEvent received unknown event"));
}

TEST(CoexDevice, WithoutTheDevice_OpenFails) {
  CoexDevice device;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(device.DeviceOpen([] {}, 0));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Failed to open the coex device!! Error: No such file or directory"));
  EXPECT_EQ(device.DeviceClose(), 0);
}

TEST(CoexDevice, OpenAndCloseManyTimes_LeavesNothing) {
  Driver driver;
  CoexDevice device;
  const int threads = ThreadCount(), descriptors = test::CountDescriptors(getpid());
  const int rounds = test::Count("openings of the coexistence device", 200);
  const auto start = steady_clock::now();
  for (int i = 0; i < rounds; ++i) {
    ASSERT_TRUE(device.DeviceOpen([] {}, 100));
    ASSERT_TRUE(device.DeviceOpen([] {}, 200));  // while it is open: another callback and delay
    ASSERT_EQ(device.DeviceClose(), 0);
    ASSERT_EQ(device.DeviceClose(), 0);
  }
  // A close that had to use force would have taken a second.
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(rounds));
  EXPECT_TRUE(test::WaitFor([&] { return ThreadCount() <= threads; }));
  EXPECT_EQ(test::CountDescriptors(getpid()), descriptors);
}

// The driver goes away: the thread ends by itself, and the device can be opened again.
TEST(CoexDevice, HangUp_EndsTheThreadAndANewOpenStartsOne) {
  CoexDevice device;
  const int threads = ThreadCount();
  const int rounds = test::Count("hang-ups of the driver", 20);
  for (int i = 0; i < rounds; ++i) {
    Driver driver;
    ASSERT_TRUE(device.DeviceOpen([] {}, 0));
    driver.pty().HangUp();
    ASSERT_TRUE(test::WaitFor([&] { return ThreadCount() <= threads; }));
  }
  EXPECT_EQ(device.DeviceClose(), 0);
}

// The callback never returns. The close asks the thread to leave after a second, and lets it go
// after another one. In a process of its own: the thread stays.
CHILD_CASE(CoexStuckInCallback) {
  Driver driver;
  CoexDevice device;
  std::atomic<bool> inside{false};
  if (!device.DeviceOpen(
          [&] {
            inside = true;
            for (;;) pause();
          },
          0)) {
    return 1;
  }
  driver.Notify("01 00 01 42");
  if (!test::WaitFor([&] { return inside.load(); })) return 2;
  const auto start = steady_clock::now();
  device.DeviceClose();
  const auto taken = steady_clock::now() - start;
  if (taken < std::chrono::milliseconds(1900)) return 3;
  fflush(stdout);
  _exit(0);
}

// The thread waits for the delay: the signal ends it there.
CHILD_CASE(CoexStuckInDelay) {
  Driver driver;
  CoexDevice device;
  std::atomic<bool> inside{false};
  if (!device.DeviceOpen([&] { inside = true; }, 600000)) return 1;
  driver.Notify("01 00 01 43");
  if (!test::WaitFor([&] { return inside.load(); })) return 2;
  const auto start = steady_clock::now();
  device.DeviceClose();
  if (steady_clock::now() - start > std::chrono::milliseconds(1900)) return 3;
  return driver.pty().TakeWritten().empty() ? 0 : 4;
}

TEST(CoexDeviceSlow, ThreadThatDoesNotLeave_IsSignalledThenLetGo) {
  for (const char* name : {"CoexStuckInCallback", "CoexStuckInDelay"}) {
    SCOPED_TRACE(name);
    test::TempDir root;
    const test::ChildRun run = test::RunChild(name, root.path());
    EXPECT_EQ(run.result.exit_code, 0) << run.output;
    EXPECT_THAT(run.output, HasSubstr("coex_close_timeout"));
    EXPECT_THAT(run.output, Not(HasSubstr("ReportBqrError")));
  }
}

}  // namespace
