#include "support/vectors.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/temp_dir.h"

namespace test {
namespace {

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts = android::base::Split(text, std::string(1, separator));
  for (std::string& part : parts) part = android::base::Trim(part);
  return parts;
}

std::string DataPath(const std::string& file) { return std::string(BTHAL_TEST_DATA "/") + file; }

}  // namespace

std::vector<Vector> LoadVectors(const std::string& file) {
  std::ifstream in(DataPath(file));
  if (!in) throw std::runtime_error("no vectors " + file);
  std::vector<Vector> vectors;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields = Split(line, '|');
    vectors.push_back({fields[0], {fields.begin() + 1, fields.end()}});
  }
  if (vectors.empty()) throw std::runtime_error("no vectors in " + file);
  return vectors;
}

std::string LoadData(const std::string& file) {
  const std::string text = ReadFile(DataPath(file));
  if (text.empty()) throw std::runtime_error("no data in " + file);
  return text;
}

std::string LoadExpected(const std::string& file) { return LoadData("expected/" + file); }

Bytes ParseHex(const std::string& text) {
  Bytes bytes;
  std::istringstream in(text);
  for (std::string word; in >> word;) {
    char* end = nullptr;
    const unsigned long value = strtoul(word.c_str(), &end, 16);
    const unsigned long count = *end == '*' ? strtoul(end + 1, &end, 10) : 1;
    if (*end != '\0' || value > 0xFF) throw std::runtime_error("not a byte: " + word);
    bytes.insert(bytes.end(), count, static_cast<uint8_t>(value));
  }
  return bytes;
}

std::string ToHex(const Bytes& bytes) {
  std::string text;
  for (uint8_t byte : bytes) {
    android::base::StringAppendF(&text, "%02X ", byte);
  }
  return android::base::Trim(text);
}

Bytes Concat(Bytes bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

std::optional<std::string> ParseText(const std::string& field) {
  if (field == "-") return std::nullopt;
  std::string text;
  for (size_t i = 0; i < field.size(); ++i) {
    const bool last = i + 1 == field.size();
    if (field[i] == '\\' && !last) {
      const char escape = field[++i];
      const std::string names = "nrt0\\", values("\n\r\t\0\\", 5);
      if (escape == 'x') {
        text += static_cast<char>(strtol(field.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
      } else {
        text += values.at(names.find(escape));
      }
    } else if (field[i] == '{') {
      const size_t end = field.find('}', i);
      text.append(strtoul(field.c_str() + i + 3, nullptr, 10), field[i + 1]);
      i = end;
    } else {
      text += field[i];
    }
  }
  return text;
}

std::vector<std::string> SplitTrimmed(const std::string& text, char separator) {
  return android::base::Trim(text).empty() ? std::vector<std::string>{} : Split(text, separator);
}

std::string Replaced(const std::string& text, const std::string& from, const std::string& to) {
  return android::base::StringReplace(text, from, to, /*all=*/true);
}

}  // namespace test
