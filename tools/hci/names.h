// Names of commands, events and errors (Core 5.4, 4.E.7 and 1.F), and of the controller's vendor
// codes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace bthalctl {

// "Reset (0x0C03)", or "command 0xFC99" for an unknown one.
std::string OpcodeText(uint16_t opcode);
// From "Reset", "read_bd_addr" or "0x0C03". Nothing when text is neither name nor opcode.
std::optional<uint16_t> ParseOpcode(const std::string& text);
// "Success", or "Command Disallowed (0x0C)".
std::string StatusText(uint8_t status);
std::string EventName(uint8_t code);
std::string LeEventName(uint8_t subevent);
std::string VendorEventName(uint8_t subevent);
std::string AttName(uint8_t opcode);
std::string SmpName(uint8_t code);
std::string SignallingName(uint8_t code);  // of L2CAP
// "5.3" for 0x0C.
std::string CoreVersion(uint8_t version);

}  // namespace bthalctl
