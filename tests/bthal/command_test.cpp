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
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
namespace shim = android::hardware::bluetooth::hci::shim;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Bytes;
using test::ScriptedController;
using test::UartRig;
using testing::ElementsAre;
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
  EXPECT_EQ(Run([](const Bytes& command) {
              return ScriptedController::Complete(command, 0, {0xB5, 0x01});
            }),
            0);
  EXPECT_THAT(controller_->Commands(), ElementsAre(test::ParseHex("79 FC 00")));
  EXPECT_EQ(test::ToBytes(btzvk_last_completion()), test::ParseHex("0E 06 01 79 FC 00 B5 01"));
  EXPECT_TRUE(rig_.TakeReceived().empty());
}

TEST_F(VendorCommand, Status_IsReturnedLoggedAndRecorded) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Run([](const Bytes& command) { return ScriptedController::Complete(command, 0x12); },
                Bytes(255, 0xAB)),
            0x12);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("OnEventReceive: Recv Failure VSE <[6]{14, 4, 1, 121, 252, 18}>"));
  EXPECT_THAT(log, HasSubstr("btzvk_send_command_wait_complete: 0xfc79 LEN 0xff Result 0x12"));
  EXPECT_EQ(controller_->Commands()[0].size(), 258u);
}

// An absent status byte is a failure, not what lies behind the event.
TEST_F(VendorCommand, CompletionWithoutStatus_IsAFailure) {
  EXPECT_NE(Run([](const Bytes& command) {
              return Bytes{0x0E, 0x03, 0x01, command[0], command[1]};
            }),
            0);
}

// Neither the completion of another command nor a Command Status ends the wait. Behind the former
// the command stays at the front of the queue: the next one does not go out before its answer.
TEST_F(VendorCommand, NoAnswer_EndsAfterTwoSecondsAsStatus3) {
  const Bytes reset = test::ParseHex("03 0C 00");
  for (const char* event : {"0E 04 01 14 0C 00", "0F 04 00 01 79 FC"}) {
    SCOPED_TRACE(event);
    const bool held = event[1] == 'E';
    testing::internal::CaptureStderr();
    const auto start = steady_clock::now();
    EXPECT_EQ(Run([&](const Bytes&) { return test::ParseHex(event); }), 3);
    const auto taken = steady_clock::now() - start;
    EXPECT_GE(taken, milliseconds(2000));
    EXPECT_LT(taken, milliseconds(4000));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("btzvk_send_command_wait_complete: 0xfc79 LEN 0x00 Result 0x03"));
    EXPECT_EQ(rig_.flow()->Send(1, reset.data(), reset.size()), held ? 3u : 4u);
    rig_.TakeReceived();
    rig_.DeliverEvent(test::ParseHex("0E 04 01 79 FC 00"));
    EXPECT_TRUE(test::WaitFor([&] { return controller_->Commands().size() == 2; }));
    rig_.DeliverEvent(test::ParseHex("0E 04 01 03 0C 00"));
    controller_.reset();
  }
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

TEST_F(VendorCommand, NoWait_PassesTheQueueAndItsAnswerReachesTheStack) {
  const Bytes reset = test::ParseHex("03 0C 00"), params = {0x01, 0x02};
  rig_.flow()->Send(1, reset.data(), reset.size());
  btzvk_send_command_no_wait(rig_.flow().get(), 0xFC4C, 2, params.data());
  EXPECT_EQ(rig_.pty().TakeWritten(), test::ParseHex("01 03 0C 00 01 4C FC 02 01 02"));
  rig_.DeliverEvent(test::ParseHex("0E 04 01 4C FC 00"));
  EXPECT_EQ(rig_.TakeReceived().size(), 1u);
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

class DeviceAddressWait : public testing::Test {
 protected:
  void SetUp() override {
    test::WriteFile(test::RootFolder() + "/proc/device-tree/chosen/config/bt_addr",
                    "00:11:22:33:44:55");
    ASSERT_TRUE(rig_.Open());
  }
  // Starts a provisioning that the controller does not answer, and waits until it has been asked.
  void Start() {
    done_ = abandoned_ = false;
    thread_ = std::thread([this] {
      accepted_ =
          hci::ApplyProvisionBDAddress(rig_.flow().get(), [this] { return abandoned_.load(); });
      done_ = true;
    });
    Bytes written;
    ASSERT_TRUE(test::WaitFor([&] {
      const Bytes more = rig_.pty().TakeWritten();
      written.insert(written.end(), more.begin(), more.end());
      return written.size() >= 10;
    }));
    EXPECT_FALSE(done_);
  }
  ~DeviceAddressWait() override {
    abandoned_ = true;
    hci::AbandonProvisioning();
    if (thread_.joinable()) thread_.join();
  }
  bool WaitDone() {
    const bool done = test::WaitFor([this] { return done_.load(); });
    if (done) thread_.join();
    return done;
  }

  UartRig rig_;
  std::thread thread_;
  std::atomic<bool> abandoned_{false}, accepted_{true}, done_{false};
};

TEST_F(DeviceAddressWait, EndsWhenHaltedOrAbandoned) {
  Start();
  abandoned_ = true;
  hci::AbandonProvisioning();
  EXPECT_TRUE(WaitDone());
  EXPECT_FALSE(accepted_);
  shim::Deinitialize();
  ASSERT_TRUE(rig_.Open());
  Start();
  shim::Deinitialize();
  EXPECT_TRUE(WaitDone());
  EXPECT_FALSE(accepted_);
}

TEST_F(DeviceAddressWait, RefusalEndsItAndASecondAnswerGoesToTheStack) {
  Start();
  rig_.DeliverEvent(test::ParseHex("0E 04 01 01 FC 12"));
  EXPECT_TRUE(WaitDone());
  EXPECT_FALSE(accepted_);
  EXPECT_TRUE(rig_.TakeReceived().empty());
  rig_.DeliverEvent(test::ParseHex("0E 04 01 01 FC 00"));
  EXPECT_EQ(rig_.TakeReceived().size(), 1u);
}

// Two answers at once: the second one comes before the waiting call has left.
TEST_F(DeviceAddressWait, TwoAnswersInOneRead_FirstCounts) {
  Start();
  rig_.pty().WriteToHost(test::ParseHex("04 0E 04 01 01 FC 00 04 0E 04 01 01 FC 12"));
  EXPECT_TRUE(WaitDone());
  EXPECT_TRUE(accepted_);
  EXPECT_TRUE(test::WaitFor([&] { return rig_.TakeReceived().size() == 1; }));
}

TEST(DeviceAddressAlone, WithoutOrWithHaltedFlowControl_ReturnsAtOnce) {
  EXPECT_FALSE(hci::ApplyProvisionBDAddress(nullptr, Never));
  test::WriteFile(test::RootFolder() + "/proc/device-tree/chosen/config/bt_addr",
                  "00:11:22:33:44:55");
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  rig.flow()->Halt();
  EXPECT_FALSE(hci::ApplyProvisionBDAddress(rig.flow().get(), Never));
}

}  // namespace
