#include "tools/hci/names.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "tools/wire/code_names.h"

namespace bthalctl {
namespace {

using wire::CodeKind;

std::string HexCode(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

std::string NameOr(CodeKind table, uint8_t code, const char* kind) {
  const char* name = wire::NameOf(table, code);
  return name != nullptr ? name : kind + (" " + HexCode(code, 2));
}

// Letters and digits only, in lower case: "Read BD_ADDR" is "readbdaddr".
std::string Folded(const std::string& text) {
  std::string folded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte)) folded += static_cast<char>(std::tolower(byte));
  }
  return folded;
}

}  // namespace

std::string OpcodeText(uint16_t opcode) {
  const char* name = wire::NameOf(CodeKind::kCommand, opcode);
  return name != nullptr ? std::string(name) + " (" + HexCode(opcode, 4) + ")"
                         : "command " + HexCode(opcode, 4);
}

std::optional<uint16_t> ParseOpcode(const std::string& text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str() + 2, &end, 16);
    if (*end != 0 || value == 0 || value > 0xFFFF) return std::nullopt;
    return static_cast<uint16_t>(value);
  }
  const std::string wanted = Folded(text);
  if (wanted.empty()) return std::nullopt;
  const wire::CodeName* const row =
      wire::FindName(CodeKind::kCommand, [&](const char* name) { return Folded(name) == wanted; });
  return row == nullptr ? std::nullopt : std::optional(row->code);
}

std::string StatusText(uint8_t status) {
  if (status == 0) return "Success";
  const char* name = wire::NameOf(CodeKind::kStatus, status);
  return name != nullptr ? std::string(name) + " (" + HexCode(status, 2) + ")"
                         : "status " + HexCode(status, 2);
}

std::string EventName(uint8_t code) { return NameOr(CodeKind::kEvent, code, "event"); }
std::string LeEventName(uint8_t subevent) {
  return NameOr(CodeKind::kLeEvent, subevent, "LE event");
}
std::string VendorEventName(uint8_t subevent) {
  return NameOr(CodeKind::kVendorEvent, subevent, "vendor event");
}
std::string AttName(uint8_t opcode) { return NameOr(CodeKind::kAtt, opcode, "ATT opcode"); }

std::string SmpName(uint8_t code) { return NameOr(CodeKind::kSmp, code, "SMP code"); }
std::string SignallingName(uint8_t code) {
  return NameOr(CodeKind::kSignalling, code, "signalling code");
}

std::string CoreVersion(uint8_t version) {
  constexpr const char* kVersions[] = {"1.0b", "1.1", "1.2", "2.0", "2.1", "3.0", "4.0",
                                       "4.1",  "4.2", "5.0", "5.1", "5.2", "5.3", "5.4"};
  return version < std::size(kVersions) ? kVersions[version] : "version " + HexCode(version, 2);
}

}  // namespace bthalctl
