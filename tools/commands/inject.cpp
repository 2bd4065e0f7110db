#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>

#include <cstdio>

#include "tools/commands/command_words.h"
#include "tools/commands/commands.h"
#include "tools/hci/names.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::hardware::nuvexa::bluetooth::ext::V1_0::IBluetoothExt;

struct InjectOptions : CommandValues {
  CommandWords words;
};

void Inject(const Options& options, const InjectOptions& inject) {
  const auto [opcode, parameters] = inject.words.Parse();
  const auto service = FindExtension<IBluetoothExt>(options.wait());
  CallOutcome outcome("bthal.btext");
  const auto result = service->setBluetoothCmdPacket(opcode, parameters);
  Demand(result);
  const bool success = static_cast<bool>(result);
  if (inject.json) {
    const nlohmann::json out = {{"opcode", opcode}, {"success", success}};
    std::puts(out.dump().c_str());
  } else if (success) {
    std::printf("%s: Success\n", OpcodeText(opcode).c_str());
  }
  if (success) return;
  // Why, if the log tells.
  outcome.Accepted();
  throw Failure(OpcodeText(opcode) + " was refused, or not answered within 2 s");
}

}  // namespace

void AddInject(CLI::App& app, const Options& options) {
  auto [command, inject] =
      AddCommand(app, options, Inject, "inject", "send one HCI command beside those of the stack",
                 "for a script");
  inject.words.Declare(command);
  command.footer(
      "The service sends it among the stack's commands and waits 2 s for its Command Complete, of\n"
      "which only success or failure comes back: for an answer with parameters use \"cmd\". A\n"
      "command that is answered by Command Status counts as failed. Every command is let through,\n"
      "and the stack is not told of it.\n"
      "Examples:\n  bthalctl inject 0x0C14\n  bthalctl inject 0xFC01 01 02 03 04 05 06");
}

}  // namespace bthalctl
