#include "tools/wire/fields.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "tools/wire/code_names.h"
#include "tools/wire/text.h"

namespace wire {
namespace {

constexpr unsigned kShownItems = 12;  // of a list

struct Short {
  std::string_view name;
  std::string_view type;
  std::string_view label;  // where the description gives none
};
constexpr Short kShorts[] = {
    {"on", "u8(off|on)", ""},
    {"role", "u8(central|peripheral)", ""},
    {"own", "u8(public|random|resolvable_or_public|resolvable_or_random)", "own_address"},
    {"phy", "u8(|LE_1M|LE_2M|LE_coded)", "PHY"},
    {"link", "u8(SCO|ACL|eSCO)", ""},
    {"encryption", "u8(not_encrypted|encrypted|encrypted_with_AES-CCM)", ""},
    {"air", "u8(u-law|A-law|CVSD|transparent)", ""},
    {"io", "u8(display_only|display_yes/no|keyboard_only|no_input_no_output|keyboard_and_display)",
     ""},
    {"keypress", "u8(entry_started|digit_entered|digit_erased|cleared|entry_completed)", ""},
    {"service", "u8(no_traffic|best_effort|guaranteed)", ""},
    {"packing", "u8(sequential|interleaved)", ""},
    {"framing", "u8(unframed|framed)", ""},
    {"fragment", "u8(intermediate|first|last|complete|unchanged)", ""},
    {"ms625", "u16*0.625ms", ""},
    {"ms1250", "u16*1.25ms", ""},
    {"ms10", "u16*10ms", ""},
    {"company", "x16", "company"},
    {"codecid", "u8(u-law|A-law|CVSD|transparent|linear_PCM|mSBC|LC3|G.729A|255=vendor)", "codec"},
    {"crresult",
     "u16(success||SPSM_not_supported||no_resources|insufficient_authentication|insufficient_"
     "authorization|encryption_key_size|insufficient_encryption|invalid_source|source_in_use|"
     "unacceptable_parameters)",
     "result"},
};

// "ADV_DIRECT_IND_fast" is "ADV_DIRECT_IND fast".
std::string Spaced(std::string_view name) {
  const auto is_capital = [](char c) { return c >= 'A' && c <= 'Z'; };
  std::string text(name);
  for (size_t i = 1; i + 1 < name.size(); ++i) {
    if (name[i] == '_' && !(is_capital(name[i - 1]) && is_capital(name[i + 1]))) text[i] = ' ';
  }
  return text;
}

// Takes what stands before separator (or all) off the front of text.
std::string_view TakeUntil(std::string_view& text, char separator) {
  const size_t at = text.find(separator);
  const std::string_view taken = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
  return taken;
}

// Takes the digits off the front of text; 0 when there are none.
unsigned TakeNumber(std::string_view& text) {
  unsigned number = 0;
  while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
    number = number * 10 + static_cast<unsigned>(text[0] - '0');
    text.remove_prefix(1);
  }
  return number;
}

// The name that "(off|on||255=auto)" has for a value; empty when it has none.
std::string_view NameIn(std::string_view names, uint64_t value) {
  names = names.substr(1, names.size() - 2);
  for (uint64_t number = 0; !names.empty(); ++number) {
    std::string_view name = TakeUntil(names, '|');
    if (const size_t sign = name.find('='); sign != std::string_view::npos) {
      number = TakeNumber(name);
      name.remove_prefix(1);
    }
    if (number == value) return name;
  }
  return {};
}

// A text of the air: other characters than printable ones are "?".
std::string Quoted(ByteView bytes) {
  std::string text = "\"";
  for (const uint8_t c : bytes) {
    if (c == 0) break;
    text += c >= 0x20 && c < 0x7F && c != '"' ? static_cast<char>(c) : '?';
  }
  return text + "\"";
}

// Advertising data (Core Specification Supplement, A.1): names, flags and 16-bit UUIDs, the rest as
// bytes with their type.
std::string AdvertisingText(ByteView data) {
  std::string text;
  while (data.size() > 1 && data[0] > 0) {
    const uint8_t type = data[1];
    const ByteView value = data.Sub(2, data[0] - size_t{1});
    if (!text.empty()) text += ", ";
    if (type == 0x08 || type == 0x09) {
      text += Quoted(value);
    } else if (type == 0x01 && value.size() == 1) {
      text += "flags " + HexCode(value[0], 2);
    } else if (type == 0x02 || type == 0x03) {
      text += "UUIDs";
      for (size_t at = 0; at < value.size(); at += 2) text += " " + HexCode(value.U16(at), 4);
    } else {
      text += HexCode(type, 2) + " [" + HexText(value, kShownBytes) + "]";
    }
    data = data.From(size_t{1} + data[0]);
  }
  return text.empty() ? "no data" : text;
}

std::string AddressWithType(ByteView bytes) {
  static constexpr const char* kTypes[] = {"public", "random", "public identity",
                                           "random identity"};
  if (bytes[0] == 0xFF) return "anonymous";
  return AddressText(bytes.From(1)) + " (" +
         (bytes[0] < 4 ? kTypes[bytes[0]] : "type " + HexCode(bytes[0], 2)) + ")";
}

// Walks through a description and the bytes side by side.
class FieldReader {
 public:
  explicit FieldReader(ByteView bytes) : bytes_(bytes) {}

  // Appends to text what fields tell; false when the bytes end before.
  bool Read(std::string_view fields, std::string* text) {
    while (!fields.empty()) {
      if (fields[0] == '[') {
        fields.remove_prefix(1);
        std::string_view group = TakeUntil(fields, ']');
        if (!fields.empty()) fields.remove_prefix(1);
        if (!ReadGroup(group, text)) return false;
        continue;
      }
      std::string_view field = TakeUntil(fields, ' ');
      if (field == "?") {
        if (at_ == bytes_.size()) return true;
      } else if (!ReadField(field, text)) {
        return false;
      }
    }
    return true;
  }
  size_t at() const { return at_; }

 private:
  static void Add(std::string* text, const std::string& more) {
    if (more.empty()) return;
    if (!text->empty() && text->back() != '(') *text += ", ";
    *text += more;
  }

  // The next size bytes; false when there are fewer.
  bool Take(size_t size, ByteView* taken) {
    if (bytes_.size() - at_ < size) return false;
    *taken = bytes_.Sub(at_, size);
    at_ += size;
    return true;
  }

  bool ReadGroup(std::string_view group, std::string* text) {
    std::string_view label = TakeUntil(group, ' ');
    const std::string_view kind = TakeUntil(label, ':');
    unsigned count = 0;
    if (kind != "*") {
      ByteView number;
      if (!Take(1, &number)) return false;
      count = number[0];
      if (kind[0] == 'm') {
        Add(text, Spaced(label) + " " + HexCode(count, 2));
        count = static_cast<unsigned>(__builtin_popcount(count));
      } else if (!label.empty() || count == 0) {
        Add(text, std::to_string(count) + (label.empty() ? "" : " " + Spaced(label)));
      }
    }
    std::string items;
    bool whole = true;
    for (unsigned i = 0; whole && (kind == "*" ? at_ < bytes_.size() : i < count); ++i) {
      std::string item = "(";
      whole = Read(group, &item);
      if (i < kShownItems && item.size() > 1) items += (i == 0 ? "" : " ") + item + ")";
      if (i == kShownItems) items += " …";
    }
    Add(text, items);
    return whole;
  }

  bool ReadField(std::string_view field, std::string* text) {
    std::string_view label = field;
    std::string_view type = TakeUntil(label, ':');
    for (const Short& each : kShorts) {
      if (each.name != type) continue;
      type = each.type;
      if (label.empty()) label = each.label;
      break;
    }
    std::string value;
    if (!ReadValue(type, &value)) return false;
    if (type == "handle" && label.empty()) label = "handle";
    if (!label.empty() && !value.empty()) value = Spaced(label) + " " + value;
    Add(text, value);
    return true;
  }

  bool ReadValue(std::string_view type, std::string* value) {
    for (const auto& special : kSpecials) {
      if (special.name != type) continue;
      ByteView bytes;
      if (!Take(special.size, &bytes)) return false;
      *value = special.text(bytes);
      return true;
    }
    ByteView bytes;
    if (type == "uuid") {
      Take(bytes_.size() - at_, &bytes);
      *value = bytes.size() == 2 ? HexCode(bytes.U16(0), 4) : HexText(bytes);
      return !bytes.empty();
    }
    const std::string_view word = type;
    const size_t letters = type.find_first_of("0123456789");
    const std::string_view kind = type.substr(0, letters);
    type.remove_prefix(kind.size());
    unsigned size = TakeNumber(type);
    if (kind == "d" || word == "ad") {
      if (!Take(kind == "d" ? size / 8 : 1, &bytes)) return false;
      size = bytes.U16(0);
    } else if (word == "b") {
      size = static_cast<unsigned>(bytes_.size() - at_);
    } else if (kind == "u" || kind == "i" || kind == "x") {
      if (!Take(size / 8, &bytes)) return false;
      *value = Number(kind[0], bytes, type);
      return true;
    }
    if (!Take(size, &bytes)) return false;
    if (kind == "ad") *value = AdvertisingText(bytes);
    if (kind == "s") *value = Quoted(bytes);
    if (kind == "b" || kind == "d") *value = HexText(bytes, kShownBytes);
    return true;
  }

  // rest: "(names)" or "*factor unit" or "unit".
  static std::string Number(char kind, ByteView bytes, std::string_view rest) {
    const uint64_t number = bytes.Little(0, bytes.size());
    const int digits = static_cast<int>(2 * bytes.size());
    if (!rest.empty() && rest[0] == '(') {
      if (const std::string_view name = NameIn(rest, number); !name.empty()) return Spaced(name);
      rest = {};
    }
    if (kind == 'x') return HexCode(number, digits);
    const auto shift = static_cast<unsigned>(64 - 8 * bytes.size());
    const auto value = static_cast<double>(static_cast<int64_t>(number << shift) >> shift);
    if (kind == 'i' && bytes.size() == 1 && number == 127 && rest == "dBm") return "unknown";
    double factor = 1;
    if (!rest.empty() && rest[0] == '*') {
      const std::string text(rest.substr(1));
      char* end = nullptr;
      factor = std::strtod(text.c_str(), &end);
      rest.remove_prefix(1 + static_cast<size_t>(end - text.c_str()));
    }
    std::string text;
    if (kind == 'u' && factor == 1) {
      text = std::to_string(number);
    } else {
      char digits_text[32];
      const double scaled = factor * (kind == 'i' ? value : static_cast<double>(number));
      std::snprintf(digits_text, sizeof digits_text, "%.10g", scaled);
      text = digits_text;
    }
    return rest.empty() ? text : text + " " + std::string(rest);
  }

  struct Special {
    std::string_view name;
    size_t size;
    std::string (*text)(ByteView bytes);
  };
  static constexpr Special kSpecials[] = {
      {"status", 1, [](ByteView bytes) { return StatusText(bytes[0]); }},
      {"handle", 2, [](ByteView bytes) { return HexCode(bytes.U16(0) & 0x0FFF, 3); }},
      {"addr", 6, [](ByteView bytes) { return AddressText(bytes); }},
      {"taddr", 7, AddressWithType},
      {"opcode", 2, [](ByteView bytes) { return OpcodeText(bytes.U16(0)); }},
      {"version", 1, [](ByteView bytes) { return CoreVersion(bytes[0]); }},
      {"codec", 5, [](ByteView bytes) { return HexText(bytes); }},
      {"att", 1, [](ByteView bytes) { return NameText(CodeKind::kAtt, bytes[0], "ATT opcode"); }},
      {"atterror", 1,
       [](ByteView bytes) {
         return NameText(CodeKind::kAttError, bytes[0], "error") + " (" + HexCode(bytes[0], 2) +
                ")";
       }},
  };

  const ByteView bytes_;
  size_t at_ = 0;
};

}  // namespace

FieldsText DescribeFields(std::string_view fields, ByteView bytes) {
  FieldsText result;
  FieldReader reader(bytes);
  result.whole = reader.Read(fields, &result.text);
  result.size = reader.at();
  return result;
}

std::string HexText(ByteView bytes, size_t limit) {
  std::string text = Hex(bytes.Sub(0, limit));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  if (bytes.size() > limit) text += " ... (" + std::to_string(bytes.size()) + " bytes)";
  return text;
}

}  // namespace wire
