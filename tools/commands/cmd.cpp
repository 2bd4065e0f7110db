#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/commands/command_words.h"
#include "tools/commands/commands.h"
#include "tools/hci/names.h"
#include "tools/link/exchange.h"

namespace bthalctl {
namespace {

struct CmdOptions : CommandValues {
  CommandWords words;
  double timeout_seconds = 5;
};

void Cmd(const Options& options, const CmdOptions& cmd) {
  const auto [opcode, parameters] = cmd.words.Parse();
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  const CommandAnswer answer =
      exchange.Command(opcode, parameters, Milliseconds(cmd.timeout_seconds));
  if (cmd.json) {
    const nlohmann::json out = {{"opcode", answer.opcode},
                                {"event", answer.complete ? "complete" : "status"},
                                {"status", answer.status},
                                {"parameters", HexText(answer.parameters)}};
    std::puts(out.dump().c_str());
  } else {
    std::printf("%s: %s", OpcodeText(opcode).c_str(), StatusText(answer.status).c_str());
    if (!answer.complete && answer.status == 0) std::printf(" (Command Status: it is under way)");
    std::puts("");
    if (answer.parameters.size() > 1) std::puts(HexText(answer.parameters).c_str());
  }
  if (answer.status != 0) throw Failure("the controller refused: " + StatusText(answer.status));
}

}  // namespace

void AddCmd(CLI::App& app, const Options& options) {
  auto [command, cmd] = AddCommand(app, options, Cmd, "cmd",
                                   "send one HCI command and show its answer", "for a script");
  cmd.words.Declare(command);
  AddSeconds(command, "--timeout", cmd.timeout_seconds, "seconds to wait for the answer", 0.001,
             3600);
  command.footer(
      "Examples:\n  bthalctl cmd reset\n  bthalctl cmd 0x1009\n"
      "  bthalctl cmd 0x0C01 FF FF FF FF FF FF FF 3F");
}

}  // namespace bthalctl
