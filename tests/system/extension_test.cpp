// The extensions from other processes, against the simulated controller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <map>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;

constexpr char kFirst[] = "02:00:00:00:00:01";
constexpr char kSecond[] = "02:00:00:00:00:02";
constexpr char kOther[] = "02:00:00:00:00:09";

class Extension : public ::testing::Test {
 protected:
  void Start(const std::string& scenario) {
    handset_.emplace(scenario, Mode::kAccelerated);
    handset_->StartService();
    ASSERT_EQ(handset_->Ctl({"up", "--detach"}).exit_code, 0) << handset_->Log();
  }
  std::unique_ptr<ChildProcess> Watch(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = handset_->CtlCommand({"ccc", "watch"});
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto client = std::make_unique<ChildProcess>(command);
    EXPECT_TRUE(client->WaitForOutput("watching " + arguments.back(), kDeadline))
        << client->Output() << handset_->Log();
    return client;
  }
  std::optional<Handset> handset_;
};

TEST_F(Extension, CccClientDies_EachOfItsAddressesIsRemovedAndTheOthersStay) {
  Start("");
  const auto client = Watch({kFirst, kSecond});
  const auto other = Watch({"--1-0", kOther});
  for (const char* address : {kFirst, kSecond, kOther}) {
    EXPECT_TRUE(handset_->WaitForStatus(address)) << handset_->Status();
  }
  client->Signal(SIGKILL);
  ASSERT_TRUE(handset_->WaitForStatus("\"0xFD63\": 5")) << handset_->Status() << handset_->Log();
  const std::string log = handset_->Log(), status = handset_->Status();
  EXPECT_EQ(CountOf("CallbackDeathRecipient::serviceDied", log), 1u);
  for (const char* address : {kFirst, kSecond}) {
    EXPECT_THAT(log, HasSubstr(std::string("unregisterLmpEvents: address: ") + address + "\n"));
    EXPECT_EQ(status.find(address), std::string::npos) << status;
  }
  EXPECT_THAT(status, HasSubstr(kOther));
}

// The stopped client is sent more events than its queue and its socket take, and another client 25
// events between them.
TEST_F(Extension, ClientThatNeverReads_DelaysNobody) {
  std::string scenario;
  for (int i = 0; i < 2000; ++i) {
    const std::string at = std::to_string(500 + i) + "ms";
    scenario += "after 0xFD63 nth 2 " + at + " link-layer " + kFirst + " connect\n";
    if (i % 80 == 79) {
      scenario += "after 0xFD63 nth 2 " + at + " link-layer " + kOther + " connect\n";
    }
  }
  Start(scenario);
  const auto stopped = Watch({kFirst});
  stopped->Signal(SIGSTOP);
  const auto other = Watch({"-n", "25", kOther});
  // The last event comes after 2.5 s; a wait for the other client would last 10 s.
  const auto end = other->Wait(seconds(8));
  ASSERT_TRUE(end) << other->Output();
  EXPECT_EQ(handset_->Ctl({"cmd", "0x1009"}).exit_code, 0);
  // The stopped client loses its connection, and so its registration.
  EXPECT_TRUE(WaitFor([&] { return handset_->Status().find(kFirst) == std::string::npos; }))
      << handset_->Status();
}

TEST_F(Extension, PowerStatistics_AreReadWhileBluetoothIsOn) {
  Start("after 0xFC01 nth 1 1ms activity tx 5 700ms\n");
  const std::map<std::string, std::string> environment = {{"BTHAL_ROOT", handset_->root()}};
  const std::string program = ProgramDir() + "/zvkpowerstats";
  ChildProcess provider({program}, environment);
  const auto says = [&](const std::string& text) {
    return provider.WaitForOutput(text, kDeadline);
  };
  ASSERT_TRUE(says("ready\nregistered Bluetooth\n")) << provider.Output() << handset_->Log();
  std::string refused;
  EXPECT_EQ(test::Run({program}, &refused, environment).exit_code, 1);
  EXPECT_EQ(refused, "zvkpowerstats: another power-statistics service runs here\n");
  // Each reading has the controller asked for the next one.
  EXPECT_TRUE(WaitFor([&] {
    provider.Signal(SIGUSR1);
    return CountOf("Bluetooth transmit: 7", provider.Output()) > 0;
  })) << provider.Output();
  EXPECT_EQ(handset_->Ctl({"down"}).exit_code, 0);
  EXPECT_TRUE(says("unregistered Bluetooth\n")) << provider.Output();
  EXPECT_EQ(handset_->Ctl({"up", "--detach"}).exit_code, 0);
  EXPECT_TRUE(says("unregistered Bluetooth\nregistered Bluetooth\n")) << provider.Output();
  handset_->KillService();
  EXPECT_TRUE(says("died Bluetooth\n")) << provider.Output();
  provider.Signal(SIGUSR1);
  EXPECT_TRUE(says("nobody has registered\n")) << provider.Output();
  provider.Signal(SIGTERM);
  EXPECT_EQ(provider.Wait(kDeadline)->exit_code, 0);
}

}  // namespace
}  // namespace test
