#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "sim/wire.h"

namespace zvk {

using ScenarioTime = std::chrono::milliseconds;

// The words of one line of a scenario, taken one after the other; comments are skipped. A word that
// is not what is expected throws std::runtime_error with the reason.
class Line {
 public:
  explicit Line(const std::string& text);

  bool Empty() const { return next_ == words_.size(); }
  bool NextIsTime() const;
  bool NextIsOneOf(std::initializer_list<const char*> words) const;

  std::string Next(const char* expected);
  // Takes the next word if it is this one.
  bool Take(const std::string& word);
  // Decimal or 0x….
  uint32_t TakeNumber(const char* expected, uint32_t most);
  // "250ms" or "2s".
  ScenarioTime TakeTime();
  // The number that the word stands for.
  uint32_t TakeWord(const char* expected, const std::map<std::string, uint32_t>& words);
  // Least significant byte first, as on the wire.
  Bytes TakeAddress();
  // All words that are left, which are hexadecimal bytes.
  Bytes TakeHex();

  [[noreturn]] static void Bad(const std::string& word, const char* expected);

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
};

}  // namespace zvk
