#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>

#include <cstdio>

#include "tools/commands/commands.h"
#include "tools/hci/names.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::hardware::nuvexa::bluetooth::ext::V1_0::IBluetoothExt;

struct InjectOptions {
  std::string opcode;
  std::vector<std::string> parameters;
  bool json = false;
};

void Inject(const Options& options, const InjectOptions& inject) {
  const std::optional<uint16_t> opcode = ParseOpcode(inject.opcode);
  if (!opcode) {
    throw Failure(ExitCode::kUsage, "\"" + inject.opcode +
                                        "\" is neither an opcode such as 0x0C03 nor the name of a "
                                        "command");
  }
  std::string text;
  for (const std::string& word : inject.parameters) text += word + " ";
  const Bytes parameters = ParseHex(text);
  if (parameters.size() > 255) {
    throw Failure(ExitCode::kUsage, "a command takes at most 255 bytes of parameters");
  }

  const auto service = FindExtension<IBluetoothExt>(options.wait());
  CallOutcome outcome("bthal.btext");
  const auto result = service->setBluetoothCmdPacket(*opcode, parameters);
  Demand(result);
  const bool success = static_cast<bool>(result);
  if (inject.json) {
    const nlohmann::json out = {{"opcode", *opcode}, {"success", success}};
    std::puts(out.dump().c_str());
  } else if (success) {
    std::printf("%s: Success\n", OpcodeText(*opcode).c_str());
  }
  if (success) return;
  // Why, if the log tells.
  outcome.Accepted();
  throw Failure(OpcodeText(*opcode) + " was refused, or not answered within 2 s");
}

}  // namespace

void AddInject(CLI::App& app, const Options& options) {
  auto inject = std::make_shared<InjectOptions>();
  CLI::App* command =
      app.add_subcommand("inject", "send one HCI command beside those of the stack");
  command->add_option("OPCODE", inject->opcode, "0x0C03, or a name: reset, read_bd_addr")
      ->required();
  command->add_option("PARAMS", inject->parameters,
                      "parameters in hex, length byte left out, at most 255 bytes");
  command->add_flag("--json", inject->json, "for a script");
  command->footer(
      "The service sends it among the stack's commands and waits 2 s for its Command Complete, of\n"
      "which only success or failure comes back: for an answer with parameters use \"cmd\". A\n"
      "command that is answered by Command Status counts as failed. Nothing is refused: what you\n"
      "inject, the stack does not know of.\n"
      "Examples:\n  bthalctl inject 0x0C14\n  bthalctl inject 0xFC01 01 02 03 04 05 06");
  command->callback([&options, inject] { Inject(options, *inject); });
}

}  // namespace bthalctl
