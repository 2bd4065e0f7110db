// Codes in words, under the names that the commands use.
#pragma once

#include <cstdint>
#include <string>

#include "tools/wire/code_names.h"

namespace bthalctl {

using wire::CoreVersion;
using wire::OpcodeText;
using wire::ParseOpcode;
using wire::StatusText;

inline std::string EventName(uint8_t code) {
  return wire::NameText(wire::CodeKind::kEvent, code, "event");
}
inline std::string LeEventName(uint8_t subevent) {
  return wire::NameText(wire::CodeKind::kLeEvent, subevent, "LE event");
}
inline std::string VendorEventName(uint8_t subevent) {
  return wire::NameText(wire::CodeKind::kVendorEvent, subevent, "vendor event");
}

}  // namespace bthalctl
