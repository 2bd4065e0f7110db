#include "tools/wire/code_names.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace wire {
namespace {

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

CodeRows RowsOf(CodeKind kind) {
  // In the order of CodeKind.
  static constexpr CodeRows (*kRows[])() = {
      CommandRows, EventRows, LeEventRows,  VendorEventRows, QualityReportRows,
      StatusRows,  AttRows,   AttErrorRows, SmpRows,         SignallingRows};
  return kRows[static_cast<size_t>(kind)]();
}

const CodeRow* FindRow(CodeKind kind, uint16_t code) {
  const CodeRows rows = RowsOf(kind);
  const CodeRow* const row =
      std::lower_bound(rows.begin(), rows.end(), code,
                       [](const CodeRow& each, uint16_t wanted) { return each.code < wanted; });
  return row != rows.end() && row->code == code ? row : nullptr;
}

std::string HexCode(uint64_t code, int digits) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%0*" PRIX64, digits, code);
  return text;
}

std::string OpcodeText(uint16_t opcode) {
  const CodeRow* const row = FindRow(CodeKind::kCommand, opcode);
  return row != nullptr ? std::string(row->name) + " (" + HexCode(opcode, 4) + ")"
                        : "command " + HexCode(opcode, 4);
}

std::string StatusText(uint8_t status) {
  if (status == 0) return "Success";
  const CodeRow* const row = FindRow(CodeKind::kStatus, status);
  return row != nullptr ? std::string(row->name) + " (" + HexCode(status, 2) + ")"
                        : "status " + HexCode(status, 2);
}

std::string NameText(CodeKind kind, uint8_t code, const char* kind_name) {
  const CodeRow* const row = FindRow(kind, code);
  return row != nullptr ? row->name : kind_name + (" " + HexCode(code, 2));
}

std::string CoreVersion(uint8_t version) {
  constexpr const char* kVersions[] = {"1.0b", "1.1", "1.2", "2.0", "2.1", "3.0", "4.0",
                                       "4.1",  "4.2", "5.0", "5.1", "5.2", "5.3", "5.4"};
  return version < std::size(kVersions) ? kVersions[version] : "version " + HexCode(version, 2);
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
  for (const CodeRow& row : CommandRows()) {
    if (Folded(row.name) == wanted) return row.code;
  }
  return std::nullopt;
}

}  // namespace wire
