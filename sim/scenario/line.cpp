#include "sim/scenario/line.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace zvk {
namespace {

// Decimal or 0x….
std::optional<uint32_t> Number(const std::string& word, uint32_t most) {
  if (word.empty() || word[0] < '0' || word[0] > '9') return std::nullopt;
  char* end = nullptr;
  const bool hexadecimal = word.size() > 1 && (word[1] == 'x' || word[1] == 'X');
  const unsigned long long value = std::strtoull(word.c_str(), &end, hexadecimal ? 16 : 10);
  if (*end != '\0' || value > most) return std::nullopt;
  return static_cast<uint32_t>(value);
}

// "250ms" or "2s".
std::optional<ScenarioTime> Time(const std::string& word) {
  const size_t digits = word.find_first_not_of("0123456789");
  if (digits == 0 || digits == std::string::npos) return std::nullopt;
  const auto value = Number(word.substr(0, digits), 86400000);
  const std::string unit = word.substr(digits);
  if (!value || (unit != "ms" && unit != "s")) return std::nullopt;
  return ScenarioTime(int64_t{*value} * (unit == "s" ? 1000 : 1));
}

}  // namespace

Line::Line(const std::string& text) {
  std::istringstream stream(text.substr(0, text.find('#')));
  for (std::string word; stream >> word;) words_.push_back(word);
}

bool Line::NextIsTime() const { return !Empty() && Time(words_[next_]).has_value(); }

bool Line::NextIsOneOf(std::initializer_list<const char*> words) const {
  return !Empty() && std::any_of(words.begin(), words.end(),
                                 [&](const char* word) { return words_[next_] == word; });
}

std::string Line::Next(const char* expected) {
  if (Empty()) throw std::runtime_error(std::string(expected) + " is missing");
  return words_[next_++];
}

bool Line::Take(const std::string& word) {
  if (Empty() || words_[next_] != word) return false;
  ++next_;
  return true;
}

uint32_t Line::TakeNumber(const char* expected, uint32_t most) {
  const std::string word = Next(expected);
  const auto value = Number(word, most);
  if (!value) Bad(word, expected);
  return *value;
}

ScenarioTime Line::TakeTime() {
  const std::string word = Next("a time");
  const auto time = Time(word);
  if (!time) Bad(word, "a time (250ms, 2s)");
  return *time;
}

uint32_t Line::TakeWord(const char* expected, const std::map<std::string, uint32_t>& words) {
  const std::string word = Next(expected);
  const auto found = words.find(word);
  if (found == words.end()) Bad(word, expected);
  return found->second;
}

Bytes Line::TakeAddress() {
  const std::string word = Next("an address");
  const std::optional<Bytes> address = ParseAddress(word);
  if (!address) Bad(word, "an address");
  return *address;
}

Bytes Line::TakeHex() {
  std::string text = Next("a row of hexadecimal bytes");
  while (!Empty()) text += " " + words_[next_++];
  const std::optional<Bytes> bytes = ParseHex(text);
  if (!bytes || bytes->empty()) Bad(text, "a row of hexadecimal bytes");
  return *bytes;
}

void Line::Bad(const std::string& word, const char* expected) {
  throw std::runtime_error("\"" + word + "\" is not " + expected);
}

}  // namespace zvk
