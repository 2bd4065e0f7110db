// bthalctl as scripts use it: exit codes and outputs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "support/pty.h"
#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

// Mode: accelerated.
class Ctl : public ::testing::Test {
 protected:
  Ctl() { handset_.StartService(); }
  Handset handset_{Mode::kAccelerated};
};

TEST_F(Ctl, ExitCodes_SayWhatHappened) {
  const struct {
    std::vector<std::string> arguments;
    int exit_code;
    const char* output;
  } rows[] = {
      {{"--help"}, 0, "Exit codes"},
      {{"cmd", "--help"}, 0, "bthalctl cmd reset"},
      {{}, 2, "subcommand"},
      {{"frobnicate"}, 2, "frobnicate"},
      {{"cmd", "no such command"}, 2, "neither an opcode"},
      {{"cmd", "0x10000"}, 2, "neither an opcode"},
      {{"cmd", "reset", "0G"}, 2, "no hex at character 1"},
      {{"cmd", "reset", "123"}, 2, "no hex at character 3"},
      {{"serve-h4"}, 2, "--pty,--unix,--tcp"},
      {{"serve-h4", "--tcp", "127.0.0.1:99999"}, 2, "no HOST:PORT"},
      {{"loopback", "--types", "xyz"}, 2, "xyz"},
      {{"down"}, 1, "nothing to take down"},
      {{"cmd", "0x0C01", "FF"}, 1, "Invalid HCI Command Parameters (0x12)"},
      {{"cmd", "reset"}, 0, "Reset (0x0C03): Success"},
      {{"cmd", "0x1009", "--json"}, 0, "\"status\":0"},
      {{"debug", "-o", "/nonexistent/x"}, 1, "No such file"},
      {{"debug", "--section", "nonsense"}, 2, "nonsense not in {firmware"},
      {{"debug", "--list", "--section", "last"}, 2, "--section excludes --list"},
      {{"crashes"}, 0, "no crashes"},
      {{"read-name", "nobody of that name"}, 1, "was heard"},
  };
  for (const auto& row : rows) {
    const CtlResult result = handset_.Ctl(row.arguments);
    EXPECT_EQ(result.exit_code, row.exit_code) << result.output;
    EXPECT_THAT(result.output, HasSubstr(row.output));
    EXPECT_THAT(result.output, Not(HasSubstr("\x1b["))) << "colours are for terminals";
    EXPECT_EQ(CountOf("bthalctl: ", result.output), row.exit_code == 0 ? 0 : 1) << result.output;
  }
}

TEST(CtlAlone, NoService_ExitCodeThreeForEveryCommandThatNeedsIt) {
  const TempDir root;
  for (const char* const words :
       {"up", "up --detach", "status", "info", "cmd reset", "scan", "monitor", "debug", "loopback",
        "echo x", "read-name x", "serve-h4 --tcp 0"}) {
    const std::vector<std::string> command = SplitTrimmed(words, ' ');
    std::vector<std::string> line = {ProgramDir() + "/bthalctl", "--root", root.path(), "--wait",
                                     "0"};
    line.insert(line.end(), command.begin(), command.end());
    std::string output;
    EXPECT_EQ(test::Run(line, &output).exit_code, 3) << command.front() << ": " << output;
    EXPECT_THAT(output, HasSubstr("no Bluetooth service in " + root.path()));
  }
}

TEST_F(Ctl, ClientsOfTheHolder_GetTheirOwnAnswersOnly) {
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  ChildProcess monitor(handset_.CtlCommand({"monitor", "-n", "16"}));
  ASSERT_TRUE(monitor.WaitForOutput("following the holder", kDeadline));
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
  EXPECT_EQ(CountOf("> EVT Command Complete: Read BD_ADDR (0x1009): Success", monitor.Output()),
            4u);
  EXPECT_THAT(handset_.Ctl({"status", "--json"}).output,
              ContainsRegex("\"CMD\": \\{\n *\"from_controller\": 0,\n *\"to_controller\": 8\n"));
  const CtlResult other = handset_.Ctl({"--no-holder", "cmd", "reset"});
  EXPECT_EQ(other.exit_code, 4) << other.output;
}

TEST_F(Ctl, Status_TellsTheTransportAlsoWhenNobodyHoldsIt) {
  const char* const transport =
      OnCoProcessor() ? "transport  co-processor, connected, 6000000 bit/s, low power on\n"
                      : "transport  serial line /dev/ttySAC16, open, 4000000 bit/s, low power on\n";
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  EXPECT_THAT(handset_.Ctl({"status"}).output, HasSubstr(transport));
  ASSERT_EQ(handset_.Ctl({"down"}).exit_code, 0);
  EXPECT_THAT(handset_.Ctl({"status"}).output, HasSubstr(transport)) << "it only lets go";
  handset_.service().Signal(SIGTERM);
  EXPECT_TRUE(WaitFor([&] {
    return CountOf("\"state\": \"closed\"", handset_.Ctl({"status", "--json"}).output) == 1;
  })) << handset_.Log();
}

TEST_F(Ctl, UpInTheForeground_EndsWithTheSignalAndLeavesTheServiceFree) {
  ChildProcess up(handset_.CtlCommand({"up"}));
  ASSERT_TRUE(up.WaitForOutput("Bluetooth is up after", kDeadline)) << up.Output();
  EXPECT_THAT(up.Output(), HasSubstr("device address")) << "the steps are shown";
  up.Signal(SIGINT);
  EXPECT_EQ(up.Wait(kDeadline)->exit_code, 0) << up.Output();
  EXPECT_EQ(handset_.Ctl({"cmd", "reset"}).exit_code, 0) << handset_.Log();
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
    EXPECT_EQ(CountOf("> command 0c 20 02 00", ReadFile(folder / "trace")), scans) << "left on";
  }
}

TEST(CtlUp, BringUpThatFails_IsNoSuccess) {
  Handset handset(Mode::kPlain);
  handset.StartService();
  ASSERT_EQ(unlink(handset.Path("dev/ttySAC16").c_str()), 0);
  const CtlResult up = handset.Ctl({"up"});
  EXPECT_EQ(up.exit_code, 3) << up.output;
  EXPECT_THAT(up.output, HasSubstr("SIGABRT in HostOpenUserial, process "));
  EXPECT_THAT(up.output, Not(HasSubstr("Bluetooth is")));
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

TEST_F(Ctl, Colours_AreForTerminalsThatTakeThem) {
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  const struct {
    const char* term;
    const char* no_colour;
    bool taken;
  } rows[] = {{"xterm", "", true}, {"dumb", "", false}, {"xterm", "1", false}};
  for (const auto& row : rows) {
    Pty terminal;
    std::vector<std::string> command = {"sh", "-c", "exec \"$@\" >" + terminal.path() + " 2>&1",
                                        "sh"};
    for (const std::string& word : handset_.CtlCommand({"status"})) command.push_back(word);
    std::string nothing;
    test::Run(command, &nothing, {{"TERM", row.term}, {"NO_COLOR", row.no_colour}});
    const Bytes shown = terminal.TakeWritten();
    EXPECT_FALSE(shown.empty()) << nothing;
    EXPECT_EQ(std::count(shown.begin(), shown.end(), 0x1B) > 0, row.taken)
        << "TERM=" << row.term << ", NO_COLOR=" << row.no_colour;
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

  const std::vector<std::string> prepare = {ProgramDir() + "/bthalctl", "prepare-root",
                                            folder / "other", "--address"};
  for (const char* const bad : {"5A:56:4B:01:02", "5A:56:4B:01:02:0G", "00:00:00:00:00:00"}) {
    std::vector<std::string> command = prepare;
    command.push_back(bad);
    EXPECT_EQ(test::Run(command, &output).exit_code, 2) << output;
  }
  EXPECT_EQ(test::Run({prepare.begin(), prepare.end() - 1}, &output).exit_code, 0) << output;
  EXPECT_THAT(output, HasSubstr("There is no address")) << "also after the refusals";
}

}  // namespace
}  // namespace test
