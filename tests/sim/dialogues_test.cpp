// Dialogues with the simulated handset, as tests/data/simulator_dialogues.txt lists them.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>

#include "sim/host.h"

namespace test {
namespace {

void RunStep(Host& host, const std::string& step, const std::string& argument) {
  if (step == "up") {
    host.PowerUp();
  } else if (step == "started") {
    EXPECT_TRUE(host.Started());
  } else if (step == "send") {
    host.Send(B(argument));
  } else if (step == "expect") {
    EXPECT_EQ(ToHex(host.Receive(B(argument).size())), ToHex(B(argument)));
  } else if (step == "find") {  // a packet that begins so; what comes before it is dropped
    const Bytes start = B(argument);
    Bytes packet;
    do {
      packet = host.Next();
      ASSERT_FALSE(packet.empty()) << "no such packet";
    } while (packet.size() < start.size() ||
             !std::equal(start.begin(), start.end(), packet.begin()));
  } else if (step == "quiet") {
    EXPECT_EQ(ToHex(host.Receive(1, std::chrono::milliseconds(std::stoi(argument)))), "");
  } else if (step == "speed") {
    host.SetSpeed(std::stoi(argument));
  } else if (step == "signal") {
    kill(host.zvksim().pid(), argument == "stop" ? SIGSTOP : SIGCONT);
  } else if (step == "ctl") {
    std::string output;
    std::vector<std::string> command = {ProgramDir() + "/zvksim", "ctl", host.root()};
    for (const std::string& word : SplitTrimmed(argument, ' ')) command.push_back(word);
    EXPECT_EQ(Run(command, &output).exit_code, 0) << output;
  } else if (step == "status") {
    EXPECT_TRUE(host.StatusHolds(*ParseText(argument)));
  } else if (step[0] == '/') {
    host.Write(step, *ParseText(argument));
  } else {
    ADD_FAILURE() << "unknown step";
  }
}

class Dialogue : public testing::TestWithParam<std::vector<Vector>> {};

TEST_P(Dialogue, GoesAsListed) {
  const Vector& start = GetParam().front();
  Host host(SplitTrimmed(start.fields.at(1), ' '), *ParseText(start.fields.at(2)));
  for (size_t i = 1; i < GetParam().size(); ++i) {
    const Vector& row = GetParam()[i];
    SCOPED_TRACE("step " + std::to_string(i) + ": " + row.name + " " + row.fields.at(0));
    RunStep(host, row.name, row.fields[0]);
    if (HasFailure()) return;
  }
}

// A row "case" begins each.
std::vector<std::vector<Vector>> Dialogues() {
  std::vector<std::vector<Vector>> dialogues;
  for (const Vector& row : LoadVectors("simulator_dialogues.txt")) {
    if (row.name == "case") dialogues.emplace_back();
    dialogues.back().push_back(row);
  }
  return dialogues;
}

INSTANTIATE_TEST_SUITE_P(Of, Dialogue, testing::ValuesIn(Dialogues()),
                         [](const auto& dialogue) { return dialogue.param[0].fields.at(0); });

}  // namespace
}  // namespace test
