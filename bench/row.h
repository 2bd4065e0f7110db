// What the benchmarks print: a row for each set of figures, as text or for a machine to read.
#pragma once

#include <string>

#include "distribution.h"

namespace bench {

// Takes "--json" out of the arguments of a program: its rows are then lines of JSON.
void TakeSwitches(int* argc, char** argv);
// One line for people: on stdout beside rows of text, on stderr beside lines of JSON.
void Say(const std::string& line);

// key=value …, or a JSON object with the machine's kind and the date besides.
class Row {
 public:
  // Named by its first field: what was measured.
  Row(const char* key, const std::string& name) { Add(key, name); }

  Row& Add(const char* key, const std::string& value);
  Row& Add(const char* key, size_t value);
  // Rounded to so many decimal places.
  Row& Add(const char* key, double value, int places);
  // In microseconds. As text: the median and the 99th percentile.
  Row& Add(const std::string& key, const Distribution& times);
  void Print() const;

 private:
  void AddText(const std::string& key, const std::string& value);
  void AddJson(const std::string& key, const std::string& value);

  std::string text_, json_;
};

}  // namespace bench
