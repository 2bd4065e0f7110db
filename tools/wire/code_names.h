// Codes in words (Core 5.4, 4.E.7 and 1.F), and commands from the words of a user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/wire/code_rows.h"

namespace wire {

// "0x0C03", with so many digits.
std::string HexCode(uint64_t code, int digits);
// "Reset (0x0C03)", or "command 0xFC99" for an unknown one.
std::string OpcodeText(uint16_t opcode);
// "Success", or "Command Disallowed (0x0C)".
std::string StatusText(uint8_t status);
// The name of code, or kind_name and the number.
std::string NameText(CodeKind kind, uint8_t code, const char* kind_name);
// "5.3" for 0x0C.
std::string CoreVersion(uint8_t version);

// From "Reset", "read_bd_addr" or "0x0C03". Nothing when text is neither name nor opcode.
std::optional<uint16_t> ParseOpcode(const std::string& text);

}  // namespace wire
