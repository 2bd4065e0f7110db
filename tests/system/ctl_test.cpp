// bthalctl as scripts use it: exit codes, outputs and what reaches the controller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <map>
#include <regex>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// The names and the rows of the cases of tests/data/ctl.txt, which tells what their steps mean.
std::map<std::string, std::vector<Vector>> LoadCases() {
  std::map<std::string, std::vector<Vector>> cases;
  std::string name;
  for (const Vector& row : LoadVectors("ctl.txt")) {
    if (row.name == "case") name = row.fields.at(0);
    cases[name].push_back(row);
  }
  return cases;
}

class CtlCase : public ::testing::TestWithParam<std::string> {
 protected:
  void Do(const Vector& row) {
    const std::string& step = row.name;
    const std::string field = row.fields.at(0);
    const std::string text = Resolved(row.fields.back());
    if (step == "ctl") {
      RunCtl(row.fields.at(1));
      EXPECT_EQ(exit_code_, std::stoi(field));
      EXPECT_EQ(output_.find('\x1b'), std::string::npos) << "colours are for terminals";
      EXPECT_EQ(CountOf("bthalctl: ", output_), exit_code_ == 0 ? 0 : 1);
      Find(text);
    } else if (step == "until") {
      EXPECT_TRUE(WaitFor([&] {
        RunCtl(row.fields.at(1));
        return exit_code_ == std::stoi(field) && output_.find(text) != std::string::npos;
      }));
    } else if (step == "has") {
      Find(text);
    } else if (step == "like") {
      std::smatch match;
      const std::string rest = output_.substr(at_);
      ASSERT_TRUE(std::regex_search(rest, match, std::regex(text)));
      at_ += static_cast<size_t>(match.position() + match.length());
    } else if (step == "lacks" || step == "count") {
      EXPECT_EQ(CountOf(text, output_), step == "lacks" ? 0 : std::stoul(field));
    } else if (step == "sent") {
      EXPECT_TRUE(WaitFor([&] { return CountOf("> command " + text, Trace()) > 0; }));
    } else if (step == "unsent") {
      EXPECT_EQ(CountOf("> command " + text, Trace()), 0u);
    } else if (step == "log") {
      EXPECT_TRUE(handset_->service().WaitForOutput(text, kDeadline));
    } else if (step == "signal") {
      handset_->service().Signal(std::stoi(field));
    } else if (step == "file") {
      WriteFile(handset_->Path(field), *ParseText(row.fields.at(1)));
    } else if (step == "remove") {
      EXPECT_TRUE(std::filesystem::remove(handset_->Path(field)));
    } else {
      ADD_FAILURE() << "unknown step";
    }
  }

  void SetUp() override {
    const std::vector<std::string>& start = rows_.front().fields;
    handset_.emplace(Replaced(start.at(3), ";", "\n") + "\n",
                     start.at(1) == "plain" ? Mode::kPlain : Mode::kAccelerated,
                     SplitTrimmed(start.at(2), ' '));
    absent_ = start.at(1) == "absent";
    if (!absent_) handset_->StartService();
  }
  std::string Log() const { return absent_ ? "" : handset_->Log(); }

  const std::vector<Vector> rows_ = LoadCases().at(GetParam());
  std::string output_;  // of the last command

 private:
  std::string Resolved(const std::string& text) const {
    return Replaced(Replaced(text, "@ROOT@", handset_->root()), "\\n", "\n");
  }
  std::string Trace() const { return ReadFile(handset_->Path("trace")); }
  void RunCtl(const std::string& arguments) {
    const std::string program = ProgramDir() + "/bthalctl --root " + handset_->root();
    const std::string command =
        program + " --wait " + (absent_ ? "0 " : "20 ") + Resolved(arguments);
    exit_code_ = test::Run({"sh", "-c", command}, &output_).exit_code;
    at_ = 0;
  }
  void Find(const std::string& text) {
    const size_t found = output_.find(text, at_);
    ASSERT_NE(found, std::string::npos);
    at_ = found + text.size();
  }

  std::optional<Handset> handset_;
  bool absent_ = false;
  int exit_code_ = -1;
  size_t at_ = 0;  // the end of what was found in the output
};

TEST_P(CtlCase, GoesAsListed) {
  for (size_t i = 1; i < rows_.size(); ++i) {
    Do(rows_[i]);
    if (!HasFailure()) continue;
    FAIL() << ::testing::PrintToString(rows_[i].fields) << "\n" << output_ << Log();
  }
}

std::vector<std::string> CaseNames() {
  std::vector<std::string> names;
  for (const auto& [name, rows] : LoadCases()) names.push_back(name);
  return names;
}

INSTANTIATE_TEST_SUITE_P(Of, CtlCase, ::testing::ValuesIn(CaseNames()),
                         [](const auto& name) { return name.param; });

// Mode: accelerated.
class Ctl : public ::testing::Test {
 protected:
  Ctl() { handset_.StartService(); }
  Handset handset_{Mode::kAccelerated};
};

TEST_F(Ctl, ClientsOfTheHolder_GetTheirOwnAnswersOnly) {
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  ChildProcess monitor(handset_.CtlCommand({"monitor", "-n", "16", "--opcodes", "0x1009,0x0c14"}));
  ASSERT_TRUE(monitor.WaitForOutput("following the service", kDeadline));
  std::vector<std::unique_ptr<ChildProcess>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<ChildProcess>(
        handset_.CtlCommand({"cmd", i % 2 == 0 ? "read_bd_addr" : "read_local_name"})));
  }
  for (size_t i = 0; i < clients.size(); ++i) {
    const auto end = clients[i]->Wait(kDeadline);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->exit_code, 0) << clients[i]->Output();
    EXPECT_THAT(clients[i]->Output(),
                HasSubstr(i % 2 == 0 ? "00 01 00 00 4B 56 5A" : "00 5A 56 4B"));
  }
  ASSERT_TRUE(monitor.Wait(kDeadline)) << monitor.Output();
  EXPECT_EQ(CountOf("< CMD Read BD_ADDR (0x1009)\n", monitor.Output()), 4u) << monitor.Output();
  EXPECT_EQ(CountOf("> EVT Command Complete: Read BD_ADDR (0x1009): Success, 5A:56:4B:00:00:01\n",
                    monitor.Output()),
            4u);
  EXPECT_THAT(handset_.Ctl({"status", "--json"}).output,
              ContainsRegex("\"CMD\": \\{\n *\"from_controller\": 0,\n *\"to_controller\": 8\n"));
  const CtlResult other = handset_.Ctl({"--no-holder", "cmd", "reset"});
  EXPECT_EQ(other.exit_code, 4) << other.output;
}

TEST(CtlSignals, WaitingCommand_EndsWithTheSignalsCodeUnlessThatIsItsWayToEnd) {
  const TempDir folder;
  Handset handset(Mode::kAccelerated, {"--trace", folder / "trace"});
  handset.StartService();
  const struct {
    const char* command;
    const char* argument;
    int signal;
    int exit_code;
  } rows[] = {{"read-name", "nobody of that name", SIGINT, 130},
              {"read-name", "nobody of that name", SIGTERM, 143},
              {"scan", "-t60", SIGINT, 0}};
  ChildProcess up(handset.CtlCommand({"up"}));
  ASSERT_TRUE(up.WaitForOutput("Bluetooth is up after", kDeadline)) << up.Output();
  EXPECT_THAT(up.Output(), HasSubstr("device address")) << "the steps are shown";
  up.Signal(SIGINT);
  EXPECT_EQ(up.Wait(kDeadline)->exit_code, 0) << up.Output();
  size_t scans = 0;
  for (const auto& row : rows) {
    ChildProcess waiting(handset.CtlCommand({row.command, row.argument}));
    ++scans;
    ASSERT_TRUE(WaitFor(
        [&] { return CountOf("> command 0c 20 02 01", ReadFile(folder / "trace")) == scans; }));
    waiting.Signal(row.signal);
    const auto end = waiting.Wait(kDeadline);
    ASSERT_TRUE(end) << row.command;
    EXPECT_EQ(end->exit_code, row.exit_code) << waiting.Output();
    EXPECT_THAT(waiting.Output(), HasSubstr(row.exit_code == 0 ? "devices heard" : "interrupted"));
    EXPECT_TRUE(WaitFor([&] {
      return CountOf("> command 0c 20 02 00", ReadFile(folder / "trace")) == scans;
    })) << "the scan is left on";
  }
}

TEST_F(Ctl, UpsAtOnce_OneHoldsBluetoothForAllAndDownEndsIt) {
  for (int round = 0; round < 2; ++round) {
    std::vector<std::unique_ptr<ChildProcess>> ups;
    for (int i = 0; i < 4; ++i) {
      ups.push_back(std::make_unique<ChildProcess>(handset_.CtlCommand({"up", "-q", "--detach"})));
    }
    size_t brought_up = 0;
    for (const auto& up : ups) {
      const auto end = up->Wait(kDeadline);
      ASSERT_TRUE(end);
      EXPECT_EQ(end->exit_code, 0) << up->Output();
      brought_up += CountOf("Bluetooth is up after", up->Output());
    }
    EXPECT_EQ(brought_up, 1u);
    EXPECT_EQ(handset_.Ctl({"down"}).exit_code, 0) << handset_.Log();
    EXPECT_THAT(handset_.Ctl({"status"}).output, HasSubstr("not held by bthalctl"));
  }
}

TEST(PrepareRoot, RecipeOfTheReadme_BringsUpAControllerAtAPort) {
  const std::string readme = LoadData("../../README.md");
  const size_t begin = readme.find("```\n", readme.find("## A real serial port")) + 4;
  std::string recipe = readme.substr(begin, readme.find("```", begin) - begin);
  Handset board(Mode::kAccelerated);  // of which only the port is used
  WriteFile(board.Path("sys/class/rfkill/rfkill0/state"), "1");
  const TempDir folder;
  for (const auto& [printed, here] : std::map<std::string, std::string>{
           {"/srv/board", folder / "board"},
           {"/dev/ttyUSB0", board.Path("dev/ttySAC16")},
           {"ZVK_B5.hcd", board.Path("vendor/firmware/tovu/ZVK_B5.hcd")}}) {
    ASSERT_THAT(recipe, HasSubstr(printed));
    recipe = Replaced(recipe, printed, here);
  }
  const std::string set_up = "PATH=" + ProgramDir() + ":$PATH\ntrap 'kill -KILL $!' EXIT\n";
  std::string output;
  EXPECT_EQ(test::Run({"sh", "-ec", set_up + recipe}, &output).exit_code, 0) << recipe << output;
  EXPECT_THAT(output, HasSubstr("gets the address 5A:56:4B:01:02:03"));
  EXPECT_THAT(output, HasSubstr("\naddress      5A:56:4B:01:02:03\n"));
  EXPECT_THAT(output, HasSubstr("ZVK Beacon"));
  EXPECT_THAT(output, HasSubstr("Bluetooth is down"));
}

}  // namespace
}  // namespace test
