// The extensions from other processes, against the simulated controller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kFirst[] = "02:00:00:00:00:01";
constexpr char kSecond[] = "02:00:00:00:00:02";
constexpr char kThird[] = "02:00:00:00:00:03";
constexpr char kOther[] = "02:00:00:00:00:09";

std::string WriteScenario(const std::string& folder, const std::string& text) {
  const std::string path = folder + "/scenario.txt";
  WriteFile(path, text);
  return path;
}

class Extension : public ::testing::Test {
 protected:
  void Start(const std::string& scenario = "") {
    handset_.emplace(Mode::kAccelerated, std::vector<std::string>{
                                             "--scenario", WriteScenario(files_.path(), scenario)});
    handset_->StartService();
    ASSERT_EQ(handset_->Ctl({"up", "--detach"}).exit_code, 0) << handset_->Log();
    ASSERT_TRUE(handset_->service().WaitForOutput("startWatcher: ", kDeadline)) << handset_->Log();
  }
  std::unique_ptr<ChildProcess> Client(const std::vector<std::string>& arguments) {
    const std::filesystem::path tests =
        std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::vector<std::string> command = {tests / "system_test_extension_client"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(
        command, std::map<std::string, std::string>{{"BTHAL_ROOT", handset_->root()}});
  }
  std::string Status() { return ReadFile(handset_->Path("run/zvksim/status")); }
  bool WaitForStatus(const std::string& text) {
    return WaitFor([&] { return Status().find(text) != std::string::npos; });
  }
  // How often the controller got a command.
  bool WaitForCommands(const std::string& opcode, int count) {
    return WaitForStatus("\"" + opcode + "\": " + std::to_string(count));
  }

  TempDir files_;
  std::optional<Handset> handset_;
};

TEST_F(Extension, CccClientDies_EachOfItsAddressesIsRemovedAndTheOthersStay) {
  Start();
  const auto client = Client({"watch", "1.1", kFirst, kSecond, kThird});
  const auto other = Client({"watch", "1.0", kOther});
  ASSERT_TRUE(client->WaitForOutput("registered", kDeadline)) << handset_->Log();
  ASSERT_TRUE(other->WaitForOutput("registered", kDeadline)) << handset_->Log();
  ASSERT_TRUE(WaitForCommands("0xFD63", 4)) << Status();
  // Each registration was answered through its callback.
  for (const char* address : {kFirst, kSecond, kThird}) {
    EXPECT_TRUE(client->WaitForOutput(std::string("told ") + address + " 0 0\n", kDeadline));
  }
  EXPECT_TRUE(other->WaitForOutput(std::string("told ") + kOther + " 0 0\n", kDeadline));

  client->Signal(SIGKILL);
  ASSERT_TRUE(WaitForCommands("0xFD63", 7)) << Status() << handset_->Log();
  const std::string log = handset_->Log();
  EXPECT_EQ(CountOf("CallbackDeathRecipient::serviceDied", log), 1u);
  for (const char* address : {kFirst, kSecond, kThird}) {
    EXPECT_THAT(log, HasSubstr(std::string("unregisterLmpEvents: address: ") + address + "\n"));
    EXPECT_EQ(Status().find(address), std::string::npos) << Status();
  }
  EXPECT_THAT(Status(), HasSubstr(kOther));
}

// More events than its queue and its socket take for a client that is stopped, and 50 for another
// one between them.
TEST_F(Extension, ClientThatNeverReads_DelaysNobody) {
  std::string scenario;
  for (int i = 0; i < 2000; ++i) {
    const std::string at = std::to_string(2000 + i) + "ms";
    scenario += "after 0xFD63 nth 2 " + at + " link-layer " + kFirst + " connect\n";
    if (i % 40 == 39)
      scenario += "after 0xFD63 nth 2 " + at + " link-layer " + kOther + " connect\n";
  }
  Start(scenario);
  const auto stopped = Client({"watch", "1.1", kFirst});
  ASSERT_TRUE(stopped->WaitForOutput("told", kDeadline)) << handset_->Log();
  stopped->Signal(SIGSTOP);
  const auto other = Client({"watch", "1.1", kOther});
  ASSERT_TRUE(other->WaitForOutput("told", kDeadline)) << handset_->Log();
  const auto start = steady_clock::now();
  // Its own result, and 50 events.
  ASSERT_TRUE(WaitFor([&] { return CountOf("told", other->Output()) == 51; })) << other->Output();
  const auto taken = steady_clock::now() - start;
  // The last event comes after 4 s; a wait for the other client would last 10 s.
  EXPECT_LT(duration_cast<milliseconds>(taken).count(), 8000);
  EXPECT_EQ(handset_->Ctl({"cmd", "0x1009"}).exit_code, 0);
  // What is too much for it ends its connection, and so its registration.
  EXPECT_TRUE(WaitFor([&] { return Status().find(kFirst) == std::string::npos; })) << Status();
  EXPECT_THAT(Status(), HasSubstr(kOther));
}

// Each holds the one RPC thread for its 2 s.
TEST_F(Extension, UnansweredInjections_TakeTwoSecondsEachAndThenNothingIsLost) {
  Start("on 0xFC80 command-status\n");
  constexpr int kClients = 3;
  const auto start = steady_clock::now();
  std::vector<std::unique_ptr<ChildProcess>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(Client({"inject", "0xFC80"}));
  for (const auto& client : clients) {
    ASSERT_TRUE(client->Wait(kDeadline));
    double taken = 0;
    ASSERT_EQ(sscanf(client->Output().c_str(), "refused after %lf s", &taken), 1)
        << client->Output();
    EXPECT_GE(taken, 1.999);
    EXPECT_LT(taken, 2.0 * kClients + 1.0);
  }
  EXPECT_GE(steady_clock::now() - start, seconds(2 * kClients));
  EXPECT_EQ(CountOf("0xfc80 LEN 0x00 Result 0x03", handset_->Log()), size_t{kClients});
  const auto client = Client({"inject", "0x1009"});
  ASSERT_TRUE(client->Wait(kDeadline));
  EXPECT_THAT(client->Output(), StartsWith("accepted"));
  EXPECT_EQ(handset_->Ctl({"cmd", "0x1009"}).exit_code, 0);
}

TEST_F(Extension, WhileBluetoothIsOff_CallsAreRefusedAtOnce) {
  Start();
  ASSERT_EQ(handset_->Ctl({"down"}).exit_code, 0);
  ASSERT_TRUE(handset_->service().WaitForOutput("BluetoothHci::close() Done", kDeadline));
  const auto client = Client({"inject", "0x1009"});
  ASSERT_TRUE(client->Wait(kDeadline));
  EXPECT_THAT(client->Output(), StartsWith("refused"));
  const auto watcher = Client({"watch", "1.1", kFirst});
  ASSERT_TRUE(watcher->WaitForOutput("registered", kDeadline));
  EXPECT_THAT(handset_->Log(),
              HasSubstr("registerForLmpEvents_1_1: Unable to register for LMP events"));
}

// The power-statistics service of the handset.
class PowerStats {
 public:
  explicit PowerStats(const std::string& root)
      : process_({ProgramDir() + "/zvkpowerstats"}, {{"BTHAL_ROOT", root}}) {}

  bool WaitForRegistrations(size_t count) {
    return WaitFor([&] { return CountOf("\nregistered Bluetooth", Output()) >= count; });
  }
  // Times and entries of the four states, in order.
  std::vector<long long> Ask() {
    const auto numbers = [&] {
      std::istringstream output(Output());
      std::vector<long long> all;
      for (std::string line; std::getline(output, line);) {
        const size_t at = line.find("Bluetooth ");
        long long time = 0;
        long long entries = 0;
        int end = 0;  // stays 0 for a line that is not whole yet
        if (at == std::string::npos) continue;
        sscanf(line.c_str() + at, "Bluetooth %*[a-z]: %lld ms, entered %lld times%n", &time,
               &entries, &end);
        if (end == 0) continue;
        all.insert(all.end(), {time, entries});
      }
      return all;
    };
    const size_t before = numbers().size();
    process_.Signal(SIGUSR1);
    if (!WaitFor([&] { return numbers().size() >= before + 8; })) return {};
    const std::vector<long long> all = numbers();
    return {all.end() - 8, all.end()};
  }
  void Kill() {
    process_.Signal(SIGKILL);
    process_.Wait(kDeadline);
  }
  std::string Output() const { return process_.Output(); }

 private:
  ChildProcess process_;
};

class Residency : public ::testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(InEachMode, Residency, ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(Residency, ProviderDiesAndBluetoothGoesOff_TotalsGoOnAndNeverBack) {
  Handset handset(GetParam());
  std::optional<PowerStats> stats(handset.root());
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  ASSERT_TRUE(stats->WaitForRegistrations(1)) << stats->Output();

  std::vector<long long> last(8, 0);
  size_t answers = 0;
  const auto ask = [&] {
    const std::vector<long long> now = stats->Ask();
    ASSERT_EQ(now.size(), 8u) << stats->Output() << handset.Log();
    for (size_t i = 0; i < now.size(); ++i) EXPECT_GE(now[i], last[i]) << "number " << i;
    last = now;
    // The controller's counters, which the next question is answered with.
    ++answers;
    ASSERT_TRUE(WaitFor([&] {
      return CountOf("filter_hci_activities_vse: Filtered", handset.Log()) >= answers;
    })) << handset.Log();
  };
  ASSERT_NO_FATAL_FAILURE(ask());
  ASSERT_NO_FATAL_FAILURE(ask());
  EXPECT_GT(last[0], 0) << "idle, in ms";
  const long long idle = last[0];

  stats->Kill();
  ASSERT_TRUE(handset.service().WaitForOutput("binderDied: PowerStats service died", kDeadline));
  stats.emplace(handset.root());
  ASSERT_TRUE(stats->WaitForRegistrations(1)) << stats->Output() << handset.Log();
  ASSERT_NO_FATAL_FAILURE(ask());
  ASSERT_NO_FATAL_FAILURE(ask());
  EXPECT_GT(last[0], idle);

  for (size_t i = 0; i < 3; ++i) {
    ASSERT_EQ(handset.Ctl({"down"}).exit_code, 0) << handset.Log();
    ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
    ASSERT_TRUE(stats->WaitForRegistrations(2 + i)) << stats->Output();
    ASSERT_NO_FATAL_FAILURE(ask());
    ASSERT_NO_FATAL_FAILURE(ask());
  }
}

class BusyHandsetSlow : public Extension {
 protected:
  // Until what regex describes stands in the debug report's section of activity; the section.
  std::string WaitForReport(const std::string& regex) {
    std::string report;
    EXPECT_TRUE(WaitFor([&] {
      report = handset_->Ctl({"debug", "-s", "activity"}).output;
      return ::testing::Matches(::testing::ContainsRegex(regex))(report);
    })) << report;
    return report;
  }
};

// Advertising for longer than 5 s, then data for longer than 5 s and awake for longer than 10 s.
TEST_F(BusyHandsetSlow, ItsReportAndLogTellWhatItDid) {
  Start(
      "after 0xFC27 nth 1 2s quality monitoring\n"
      "after 0xFC27 nth 1 2s latency-trace 2\n"
      "after 0xFC27 nth 1 2s ewp 40\n"
      "after 0xFC27 nth 1 2s ewp-iso 16\n");
  ASSERT_EQ(handset_->Ctl({"scan", "-t", "2"}).exit_code, 0);
  // Long enough for the short scan to end as what it is.
  std::this_thread::sleep_for(milliseconds(2500));
  ASSERT_EQ(handset_->Ctl({"scan", "-t", "6"}).exit_code, 0);
  const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3}";
  const std::string from_to = time + ", " + time + ", ";
  std::string report =
      WaitForReport("duration, le_adv_counter\n" + from_to + "(7[89]|8[0-9])[0-9]{2}, [0-9]+\n\\*");

  // One that goes on until it is told to stop: a gap would let the controller sleep.
  ChildProcess loop({ProgramDir() + "/bthalctl", "--root", handset_->root(), "loopback", "--types",
                     "acl", "--bytes", "100000M"});
  ASSERT_FALSE(loop.Wait(seconds(15))) << loop.Output();  // with room for a slow start
  loop.Signal(SIGINT);
  ASSERT_TRUE(loop.Wait(kDeadline)) << loop.Output();
  // Both records are there when the line is quiet again; they may be several on a busy machine.
  report = WaitForReport("conn_handle, during, acl_rx_data_count\n" + from_to +
                         "1, [0-9]{4,5}, [0-9]+\n");
  report = WaitForReport("during, tx_packet_count\n" + from_to + "1[0-9]{4}, [0-9]+\n");
  printf("%s", report.c_str());

  const std::string log = handset_->Log();
  EXPECT_THAT(log, HasSubstr("W bthal.bqr: ParseLinkQualityRelatedEvt: Monitoring , Handle: 0x"));
  EXPECT_THAT(log, HasSubstr(": Packet[2/2], Packet_Entry_Time_Offset: 20.000,"
                             "First_Packet_Transmit_Delay: 10.000, First_Packet_Ack_Delay: 15.000,"
                             "Final_Packet_Transmit_Delay: 20.000\n"));
  EXPECT_THAT(log, HasSubstr(" [BT_EWP_DUMP] 0x020 : [ x"));
  EXPECT_THAT(log, HasSubstr(" [BT_EWP_DUMP] 0x000 : [Handle=0xe00, LEN=40]{DATA=x"));
  EXPECT_THAT(log, HasSubstr(" [BT_EWP_DUMP] 0x000 : [Handle=0xd00, LEN="));
}

}  // namespace
}  // namespace test
