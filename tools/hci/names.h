// Names of codes, for people (Bluetooth Core 5.3, Vol 4, Part E, 7, and Vol 1, Part F; the
// controller's own vendor codes besides).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace bthalctl {

// "Reset (0x0C03)", or "command 0xFC99" for an unknown one.
std::string OpcodeText(uint16_t opcode);
// From "Reset", "read_bd_addr" or "0x0C03". Nothing when it is neither.
std::optional<uint16_t> ParseOpcode(const std::string& text);
// "Success", or "Command Disallowed (0x0C)".
std::string StatusText(uint8_t status);
std::string EventName(uint8_t code);
std::string LeEventName(uint8_t subevent);
std::string VendorEventName(uint8_t subevent);
std::string AttName(uint8_t opcode);
// "5.3" for 0x0C.
std::string CoreVersion(uint8_t version);

}  // namespace bthalctl
