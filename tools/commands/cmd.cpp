#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/hci/names.h"
#include "tools/link/exchange.h"

namespace bthalctl {
namespace {

struct CmdOptions {
  std::string opcode;
  std::vector<std::string> parameters;
  double timeout_seconds = 5;
  bool json = false;
};

void Cmd(const Options& options, const CmdOptions& cmd) {
  const std::optional<uint16_t> opcode = ParseOpcode(cmd.opcode);
  if (!opcode) {
    throw Failure(
        ExitCode::kUsage,
        "\"" + cmd.opcode + "\" is neither an opcode such as 0x0C03 nor the name of a command");
  }
  std::string text;
  for (const std::string& word : cmd.parameters) text += word + " ";
  const Bytes parameters = ParseHex(text);
  if (parameters.size() > 255) {
    throw Failure(ExitCode::kUsage, "a command takes at most 255 bytes of parameters");
  }

  const auto link = OpenLink(options);
  Exchange exchange(*link);
  const CommandAnswer answer =
      exchange.Command(*opcode, parameters,
                       std::chrono::milliseconds(static_cast<int64_t>(cmd.timeout_seconds * 1000)));
  if (cmd.json) {
    const nlohmann::json out = {{"opcode", answer.opcode},
                                {"event", answer.complete ? "complete" : "status"},
                                {"status", answer.status},
                                {"parameters", HexText(answer.parameters)}};
    std::puts(out.dump().c_str());
  } else {
    std::printf("%s: %s", OpcodeText(*opcode).c_str(), StatusText(answer.status).c_str());
    if (!answer.complete && answer.status == 0) std::printf(" (Command Status: it is under way)");
    std::puts("");
    if (answer.parameters.size() > 1) std::puts(HexText(answer.parameters).c_str());
  }
  if (answer.status != 0) throw Failure("the controller refused: " + StatusText(answer.status));
}

}  // namespace

void AddCmd(CLI::App& app, const Options& options) {
  auto cmd = std::make_shared<CmdOptions>();
  CLI::App* command = app.add_subcommand("cmd", "send one HCI command and show its answer");
  command->add_option("OPCODE", cmd->opcode, "0x0C03, or a name: reset, read_bd_addr")->required();
  command->add_option("PARAMS", cmd->parameters, "parameters in hex, length byte left out");
  command->add_option("--timeout", cmd->timeout_seconds, "seconds to wait for the answer")
      ->capture_default_str()
      ->check(CLI::Range(0.001, 3600.0));
  command->add_flag("--json", cmd->json, "for a script");
  command->footer(
      "Examples:\n  bthalctl cmd reset\n  bthalctl cmd 0x1009\n"
      "  bthalctl cmd 0x0C01 FF FF FF FF FF FF FF 3F");
  command->callback([&options, cmd] { Cmd(options, *cmd); });
}

}  // namespace bthalctl
