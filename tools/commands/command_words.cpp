#include "tools/commands/command_words.h"

#include "tools/base/failure.h"
#include "tools/hci/names.h"

namespace bthalctl {

void CommandWords::Declare(CLI::App& command) {
  command.add_option("OPCODE", opcode_, "0x0C03, or a name: reset, read_bd_addr")->required();
  command.add_option("PARAMS", parameters_,
                     "parameters in hex, length byte left out, at most 255 bytes");
}

std::pair<uint16_t, Bytes> CommandWords::Parse() const {
  const std::optional<uint16_t> opcode = ParseOpcode(opcode_);
  if (!opcode) {
    throw Failure(ExitCode::kUsage, "\"" + opcode_ +
                                        "\" is neither an opcode such as 0x0C03 nor "
                                        "the name of a command");
  }
  std::string text;
  for (const std::string& word : parameters_) text += word + " ";
  const Bytes parameters = ParseHex(text);
  if (parameters.size() > 255) {
    throw Failure(ExitCode::kUsage, "a command takes at most 255 bytes of parameters");
  }
  return {*opcode, parameters};
}

}  // namespace bthalctl
