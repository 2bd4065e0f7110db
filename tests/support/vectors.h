// The vectors below tests/data/; their README tells the format.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;

struct Vector {
  std::string name;
  std::vector<std::string> fields;  // behind the name; escapes not yet resolved
};

std::vector<Vector> LoadVectors(const std::string& file);
// A whole file of them, for a format of its own.
std::string LoadData(const std::string& file);
// A text that a test compares to the letter, from tests/data/expected/.
std::string LoadExpected(const std::string& file);

// "0E 04 5A*3" is 0E 04 5A 5A 5A.
Bytes ParseHex(const std::string& text);
std::string ToHex(const Bytes& bytes);
Bytes Concat(Bytes bytes, const Bytes& more);
// A text with its escapes resolved; nothing for "-".
std::optional<std::string> ParseText(const std::string& field);
// Parts without the blanks around them; none for a text of blanks.
std::vector<std::string> SplitTrimmed(const std::string& text, char separator);
std::string Replaced(const std::string& text, const std::string& from, const std::string& to);

}  // namespace test
