#include "sim/base/bytes.h"

#include <cctype>

namespace zvk {

std::string Hex(ByteView bytes, size_t limit) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  const ByteView shown = bytes.Sub(0, limit);
  text.reserve(shown.size() * 3);
  for (const uint8_t byte : shown) {
    if (!text.empty()) text += ' ';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  if (shown.size() < bytes.size()) text += " …";
  return text;
}

bool ParseHex(const std::string& text, Bytes* bytes) {
  bytes->clear();
  std::string digits;
  for (const char c : text) {
    if (c == ' ') {
      if (digits.size() == 1) return false;
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    digits += c;
    if (digits.size() == 2) {
      bytes->push_back(static_cast<uint8_t>(std::stoi(digits, nullptr, 16)));
      digits.clear();
    }
  }
  return digits.empty() && !bytes->empty();
}

}  // namespace zvk
