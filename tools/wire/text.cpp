#include "tools/wire/text.h"

#include <cctype>
#include <cstdio>

namespace wire {
namespace {

constexpr size_t kAddressText = 17;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const int lower = std::tolower(static_cast<unsigned char>(c));
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The byte of which text has the two digits at index; -1 if it has not.
int ByteAt(const std::string& text, size_t index) {
  if (index + 1 >= text.size()) return -1;
  const int high = HexDigit(text[index]);
  const int low = HexDigit(text[index + 1]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace

std::string Hex(ByteView bytes, size_t limit) {
  std::string text;
  char digits[4];
  for (const uint8_t byte : bytes.Sub(0, limit)) {
    std::snprintf(digits, sizeof digits, text.empty() ? "%02x" : " %02x", byte);
    text += digits;
  }
  if (limit < bytes.size()) text += " …";
  return text;
}

std::optional<Bytes> ParseHex(const std::string& text, std::string* mistake) {
  const auto wrong = [mistake](const std::string& what) {
    if (mistake != nullptr) *mistake = what;
    return std::nullopt;
  };
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (std::isspace(static_cast<unsigned char>(text[i])) || text[i] == ':' || text[i] == ',') {
      ++i;
      continue;
    }
    if (text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
      i += 2;
      if (i == text.size()) return wrong("nothing after 0x in \"" + text + "\"");
    }
    const int byte = ByteAt(text, i);
    if (byte < 0) {
      return wrong("\"" + text + "\" is no hex at character " + std::to_string(i + 1) +
                   ": bytes have two digits");
    }
    bytes.push_back(static_cast<uint8_t>(byte));
    i += 2;
  }
  return bytes;
}

std::string AddressText(ByteView address) {
  std::string text;
  char digits[4];
  for (size_t i = address.size(); i-- > 0;) {
    std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : "%02X:", address[i]);
    text += digits;
  }
  return text;
}

std::optional<Bytes> ParseAddress(const std::string& text) {
  if (text.size() != kAddressText) return std::nullopt;
  Bytes address;
  for (size_t i = 0; i < text.size(); i += 3) {
    const int byte = ByteAt(text, i);
    if (byte < 0 || (i + 2 < text.size() && text[i + 2] != ':')) return std::nullopt;
    address.insert(address.begin(), static_cast<uint8_t>(byte));
  }
  return address;
}

}  // namespace wire
