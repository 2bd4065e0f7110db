#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "bluetooth_address.h"
#include "bring_up/btzvk_command.h"
#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/scripted_controller.h"
#include "bthal/uart_rig.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using namespace android::hardware::bluetooth;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Bytes;
using test::ScriptedController;
using test::UartRig;
using testing::HasSubstr;

bool Never() { return false; }

class VendorCommand : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.Open()); }
  uint8_t Run(ScriptedController::Script script, const Bytes& params = {}) {
    controller_.emplace(rig_.pty(), std::move(script));
    return btzvk_send_command_wait_complete(rig_.flow().get(), 0xFC79,
                                            static_cast<uint8_t>(params.size()),
                                            params.empty() ? nullptr : params.data());
  }

  UartRig rig_;
  std::optional<ScriptedController> controller_;
};

TEST_F(VendorCommand, Answer_GivesStatusAndReturnParametersAndStaysFromTheStack) {
  const Bytes answer = test::ParseHex("0E 06 01 79 FC 12 B5 01");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Run([&](const Bytes&) { return answer; }, Bytes(255, 0xAB)), 0x12);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log,
              HasSubstr("OnEventReceive: Recv Failure VSE <[8]{14, 6, 1, 121, 252, 18, 181, 1"));
  EXPECT_THAT(log, HasSubstr("btzvk_send_command_wait_complete: 0xfc79 LEN 0xff Result 0x12"));
  EXPECT_EQ(controller_->Commands()[0].size(), 258u);
  EXPECT_EQ(test::ToBytes(btzvk_last_completion()), answer);
  EXPECT_TRUE(rig_.TakeReceived().empty());
  // Without a status it is a failure, whatever lies behind the event.
  controller_.reset();
  EXPECT_NE(Run([](const Bytes&) { return test::ParseHex("0E 03 01 79 FC"); }), 0);
}

// Neither the completion of another command nor a Command Status ends the wait.
TEST_F(VendorCommand, NoAnswer_EndsAfterTwoSecondsAsStatus3) {
  const auto start = steady_clock::now();
  EXPECT_EQ(
      Run([](const Bytes&) { return test::ParseHex("0E 04 01 14 0C 00 04 0F 04 00 01 79 FC"); }),
      3);
  const auto taken = steady_clock::now() - start;
  EXPECT_GE(taken, milliseconds(2000));
  EXPECT_LT(taken, milliseconds(4000));
  EXPECT_EQ(rig_.TakeReceived().size(), 2u);
}

TEST_F(VendorCommand, HaltedOrNotSent_FailsAtOnce) {
  const auto start = steady_clock::now();
  EXPECT_EQ(Run([this](const Bytes&) {
              rig_.flow()->Halt();
              return Bytes{};
            }),
            kCommandTimedOut);
  EXPECT_EQ(btzvk_send_command_wait_complete(nullptr, 0xFC79, 0, nullptr), kCommandTimedOut);
  const auto nothing = [](const auto&) {};
  const auto deaf = hci::HciFlowControl::Create(
      {nothing, nothing, nothing, nothing},
      {[](uint8_t, const uint8_t*, size_t, bool) { return size_t{0}; }, [] {}});
  deaf->Connect([](const auto&) {});
  EXPECT_EQ(btzvk_send_command_wait_complete(deaf.get(), 0xFC79, 0, nullptr), kCommandTimedOut);
  EXPECT_LT(steady_clock::now() - start, milliseconds(1900));
}

// --- the device address ---

// Prints the commands, and the result.
CHILD_CASE(Provision) {
  test::PrintReports();
  UartRig rig;
  if (!rig.Open()) return 1;
  ScriptedController controller(rig.pty(), [&](const Bytes& command) {
    printf("command %s\n", test::ToHex(command).c_str());
    fflush(stdout);
    return ScriptedController::Complete(command, 0);
  });
  const bool accepted = hci::ApplyProvisionBDAddress(rig.flow().get(), Never);
  printf("accepted %d, stack got %zu\n", accepted, rig.TakeReceived().size());
  return 0;
}

TEST(DeviceAddress, IsReadAndWritten) {
  const std::vector<test::Vector> vectors = test::LoadVectors("device_address.txt");
  std::vector<test::TempDir> roots(vectors.size());
  const auto start = [&](size_t i) {
    const std::vector<std::string>& row = vectors[i].fields;
    test::WriteConfiguration(roots[i].path());
    if (const auto text = test::ParseText(row[0])) {
      test::WriteFile(roots[i] / "proc/device-tree/chosen/config/bt_addr", *text);
    }
    if (const auto text = test::ParseText(row[1])) {
      test::WriteFile(roots[i] / "vendor/build.prop",
                      "ro.vendor.bluetooth.evb_bdaddr=" + *text + "\n");
    }
    return test::StartChild("Provision", roots[i].path());
  };
  test::RunSideBySide(vectors.size(), start, [&](size_t i, const test::ChildRun& run) {
    SCOPED_TRACE(vectors[i].name);
    const std::string& expected = vectors[i].fields[2];
    if (expected == "fault") {
      EXPECT_EQ(run.result.signal, SIGABRT);
      EXPECT_THAT(run.output, HasSubstr("vendor error code 150, extra info: Can't fetch the "
                                        "provisioning BDA\n"));
    } else {
      EXPECT_THAT(run.output, HasSubstr("command 01 FC 06 " + expected + "\n"));
      EXPECT_THAT(run.output, HasSubstr("accepted 1, stack got 0\n"));
    }
  });
}

// What the controller says to the address, and what the stack sees of it.
TEST(DeviceAddress, Answer_EndsTheWaitAndStaysFromTheStack) {
  test::WriteFile(test::RootFolder() + "/proc/device-tree/chosen/config/bt_addr",
                  "00:11:22:33:44:55");
  const struct {
    const char* events;
    bool accepted;
    size_t for_the_stack;
    const char* line;
  } rows[] = {
      {"0E 04 01 01 FC 00", true, 0, "Recv Success VSE <[6]{14, 4, 1, 1, 252, 0}>"},
      {"0E 04 01 01 FC 12", false, 0, "Recv Failure VSE <[6]{14, 4, 1, 1, 252, 18}>"},
      // A controller that does not know the command may say so by Command Status.
      {"0F 04 01 01 01 FC", false, 0, "Recv Failure VSE <[6]{15, 4, 1, 1, 1, 252}>"},
      // Not an answer yet.
      {"0F 04 00 01 01 FC 04 0E 04 01 01 FC 00", true, 1, "Recv Success VSE <[6]{14, 4, 1, 1,"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.events);
    UartRig rig;
    ASSERT_TRUE(rig.Open());
    ScriptedController controller(rig.pty(),
                                  [&](const Bytes&) { return test::ParseHex(row.events); });
    testing::internal::CaptureStderr();
    EXPECT_EQ(hci::ApplyProvisionBDAddress(rig.flow().get(), Never), row.accepted);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.line));
    EXPECT_EQ(rig.TakeReceived().size(), row.for_the_stack);
  }
}

// Starts without an answer of the controller's; abandoned or halted while it waits, or before.
TEST(DeviceAddress, Wait_EndsWhenHaltedOrAbandoned) {
  EXPECT_FALSE(hci::ApplyProvisionBDAddress(nullptr, Never));
  test::WriteFile(test::RootFolder() + "/proc/device-tree/chosen/config/bt_addr",
                  "00:11:22:33:44:55");
  for (const bool halts : {false, true}) {
    SCOPED_TRACE(halts);
    UartRig rig;
    ASSERT_TRUE(rig.Open());
    ScriptedController silent(rig.pty(), [](const Bytes&) { return Bytes{}; });
    std::atomic<bool> abandoned{false}, done{false};
    std::thread provisioning([&] {
      EXPECT_FALSE(
          hci::ApplyProvisionBDAddress(rig.flow().get(), [&] { return abandoned.load(); }));
      done = true;
    });
    EXPECT_TRUE(test::WaitFor([&] { return silent.Commands().size() == 1; }));
    EXPECT_FALSE(done);
    if (halts) {
      rig.flow()->Halt();
    } else {
      abandoned = true;
      hci::AbandonProvisioning();
    }
    provisioning.join();
    rig.flow()->Halt();
    EXPECT_FALSE(hci::ApplyProvisionBDAddress(rig.flow().get(), Never));
  }
}

}  // namespace
