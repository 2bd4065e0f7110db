// Bluetooth on and off, which stack may attach, and what the service does with wrong input.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "support/unix_socket.h"
#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

using Time = std::pair<time_t, long>;  // seconds, nanoseconds

constexpr char kReady[] = "BTZVK controller is ready";

class BringUp : public ::testing::TestWithParam<Mode> {
 protected:
  bool Accelerated() const { return GetParam() == Mode::kAccelerated; }
  // When each of the services was registered, by its name.
  std::map<std::string, Time> Services() {
    std::map<std::string, Time> times;
    for (const auto& entry : std::filesystem::directory_iterator(handset_.Path("run/bthal"))) {
      struct stat status {};
      const std::string name = entry.path().filename();
      if (name.find("::I") == std::string::npos) continue;
      EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
      times[name] = {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
    }
    return times;
  }
  void ExpectPowered(bool powered) {
    EXPECT_TRUE(handset_.WaitForStatus(powered ? "\"powered\": true" : "\"powered\": false"))
        << handset_.Status() << handset_.Log();
    if (!UsesCoProcessor()) return;
    EXPECT_TRUE(handset_.WaitForStatus(powered ? "\"on\": true" : "\"on\": false"));
    EXPECT_TRUE(handset_.WaitForStatus(powered ? "\"connected\": true" : "\"connected\": false"));
  }
  // Each step begins once those before it have begun.
  void ExpectOrderOfClose() {
    const std::string log = handset_.Log();
    size_t at = log.rfind(" BluetoothHci::close()\n");
    for (const char* step :
         {": Disable Bluetooth HAL Extensions\n", " perform_close\n", " closeHci\n", " Shutdown\n",
          " Deinitialize\n", "PowerControl: Disabling", "closeHci: hci_handle_ = nullptr\n",
          " DeviceClose\n", " BluetoothHci::close() Done\n"}) {
      at = log.find(step, at);
      ASSERT_NE(at, std::string::npos) << step << "is out of order:\n" << log;
    }
  }
  Handset handset_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(InEachMode, BringUp, ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(BringUp, StacksComeAndGo_ControllerAnswersEachTime) {
  handset_.StartService();
  if (Accelerated()) {
    // Before any stack.
    EXPECT_TRUE(handset_.service().WaitForOutput(kReady, kDeadline)) << handset_.Log();
  }
  for (int round = 1; round <= 2; ++round) {
    const CtlResult up = handset_.Ctl({"up", "--detach"});
    ASSERT_EQ(up.exit_code, 0) << up.output << handset_.Log();
    EXPECT_THAT(up.output, HasSubstr("Bluetooth is up after"));
    ExpectPowered(true);
    for (const char* state : {"\"patched\": true", "\"sleep_mode\": true"}) {
      EXPECT_TRUE(handset_.WaitForStatus(state)) << handset_.Status();
    }
    if (UsesCoProcessor()) {
      EXPECT_TRUE(handset_.WaitForStatus("\"line_baud\": 6144000"));
      EXPECT_TRUE(handset_.WaitForStatus("\"low_power\": true"));
    }
    // The patch gives the controller its name, provisioning its address.
    const CtlResult info = handset_.Ctl({"info"});
    EXPECT_THAT(info.output, AllOf(HasSubstr("ZVK_B5"), HasSubstr("5A:56:4B:00:00:01")));
    // Another stack is refused, and the first one stays.
    const CtlResult second = handset_.Ctl({"--no-holder", "cmd", "reset"});
    EXPECT_EQ(second.exit_code, 4) << second.output;
    EXPECT_THAT(second.output, HasSubstr("another Bluetooth stack is attached"));
    EXPECT_EQ(handset_.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset_.Log();
    const CtlResult down = handset_.Ctl({"down"});
    ASSERT_EQ(down.exit_code, 0) << down.output << handset_.Log();
    ExpectPowered(Accelerated());
    if (!Accelerated()) ExpectOrderOfClose();
  }
  // Accelerated keeps the controller up between stacks; plain powers it up for each.
  EXPECT_EQ(CountOf(kReady, handset_.Log()), Accelerated() ? 1 : 2) << handset_.Log();

  // The death of a stack frees the controller, too; accelerated brings it up anew.
  const auto stack = handset_.StartStack();
  ASSERT_TRUE(stack->WaitForOutput("initialize done", kDeadline)) << handset_.Log();
  stack->Signal(SIGKILL);
  if (Accelerated()) {
    EXPECT_TRUE(WaitFor([&] { return CountOf(kReady, handset_.Log()) == 2; })) << handset_.Log();
  }
  ExpectPowered(Accelerated());
  EXPECT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();

  const std::string report = handset_.Ctl({"debug"}).output;
  for (const char* text :
       {"Controller Firmware Information", "ZVK_B5", "Anchors' Last Appear", "Anchors' History",
        "initialize_impl [ IN]", "initialize_impl [OUT]", "sendHciCommand: 0x1009 - 4 bytes"}) {
    EXPECT_THAT(report, HasSubstr(text));
  }
  // The signal switches the controller off; the process stays.
  handset_.service().Signal(SIGTERM);
  ExpectPowered(false);
  EXPECT_TRUE(handset_.WaitForStatus(UsesCoProcessor() ? "\"low_power\": false"
                                                       : "\"lpm_enabled\": false"));
  EXPECT_FALSE(handset_.service().Wait(std::chrono::milliseconds(300))) << "the process ended";
  EXPECT_TRUE(std::filesystem::is_empty(handset_.Path("data/vendor/ssrdump/coredump")));
}

TEST_P(BringUp, ServiceDies_ClientSaysSoAndTheNextServiceIsUsable) {
  handset_.StartService();
  ChildProcess up(handset_.CtlCommand({"up"}));
  ASSERT_TRUE(up.WaitForOutput("Bluetooth is up after", kDeadline)) << up.Output();
  // A client that finds the HAL finds the extensions, too: it is registered last.
  std::map<std::string, Time> services = Services();
  EXPECT_EQ(services.size(), 9u) << handset_.Log();
  const Time hal = services["android.hardware.bluetooth@1.1::IBluetoothHci:default"];
  services.erase("android.hardware.bluetooth@1.0::IBluetoothHci:default");  // its other name
  for (const auto& [name, time] : services) EXPECT_TRUE(time <= hal) << name;
  handset_.KillService();
  const auto end = up.Wait(kDeadline);
  ASSERT_TRUE(end) << up.Output();
  EXPECT_EQ(end->exit_code, 3) << up.Output();
  EXPECT_THAT(up.Output(), HasSubstr("the service died"));
  handset_.StartService();
  EXPECT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
}

TEST(BadInput, RootFolderThatIsAbsentOrTaken_OneLineAndExitCodeOne) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
  for (const auto& [root, line] : std::map<std::string, std::string>{
           {"/nonexistent/folder", "there is no root folder /nonexistent/folder"},
           {handset.root(), "another service runs on the root folder"}}) {
    std::string output;
    EXPECT_EQ(test::Run({ServiceProgram()}, &output, {{"BTHAL_ROOT", root}}).exit_code, 1);
    EXPECT_THAT(output, HasSubstr(line));
    EXPECT_EQ(CountOf("\n", output), 1) << output;
  }
  EXPECT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
}

// The holder does not check the packets that it passes on; the service does.
TEST(BadInput, PacketsWhoseLengthLies_AreDroppedWithAWarningEach) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach", "-q"}).exit_code, 0) << handset.Log();
  const int holder = ConnectUnix(handset.Path("run/bthal/holder"), SOCK_SEQPACKET);
  const char* const packets[] = {"01",              // nothing after the type
                                 "01 03",           // half an opcode
                                 "01 03 0C",        // no length
                                 "01 03 0C 05",     // five bytes promised
                                 "01 03 0C 00 AA",  // one too many
                                 "02 01 20 FF",     // ACL without its length
                                 "02 01 20 FF FF 00",
                                 "03 01",
                                 "03 01 00 FF 00",
                                 "05 01 00 00",
                                 "05 01 00 FF 3F 00"};
  const char* const warning = "does not have the length in its header, dropped";
  for (const char* packet : packets) {
    const Bytes bytes = ParseHex(packet);
    ASSERT_GT(send(holder, bytes.data(), bytes.size(), MSG_NOSIGNAL), 0);
  }
  EXPECT_TRUE(WaitFor([&] { return CountOf(warning, handset.Log()) >= std::size(packets); }))
      << handset.Log();
  // This one is right: the two bits above the length of ISO data are reserved.
  const Bytes iso = ParseHex("05 00 0E 05 C0 00 01 00 01 AA");
  ASSERT_GT(send(holder, iso.data(), iso.size(), MSG_NOSIGNAL), 0);
  EXPECT_EQ(handset.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset.Log();
  EXPECT_EQ(CountOf(warning, handset.Log()), std::size(packets)) << handset.Log();
  close(holder);
}

}  // namespace
}  // namespace test
