#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/scenario/scenario.h"
#include "sim/wire.h"

namespace zvk {

// The words of one line of a scenario, taken from the left; a comment is left out. What is not as
// expected throws std::runtime_error with the reason.
class Line {
 public:
  explicit Line(const std::string& text);

  bool Empty() const { return next_ == words_.size(); }
  bool NextIsTime() const;

  std::string Next(const char* expected);
  // Only if it is this word.
  bool Take(const std::string& word);
  // Decimal or 0x….
  uint32_t TakeNumber(const char* expected, uint32_t most);
  // "250ms" or "2s".
  ScenarioTime TakeTime();
  // The number that the word stands for.
  uint32_t TakeWord(const char* expected, const std::map<std::string, uint32_t>& words);
  // As on the wire, least significant byte first.
  Bytes TakeAddress();
  // All that is left, in hexadecimal.
  Bytes TakeHex();

  [[noreturn]] static void Bad(const std::string& word, const char* expected);

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
};

}  // namespace zvk
