#include "tools/log/user_data.h"

#include <cctype>

namespace bthalctl {

bool HoldsUserData(const LogLine& line) {
  // Dumps of data packets, and whole packets, which are logged on request only.
  return line.tag == "bthal.ewp" || line.priority == 'V' || line.priority == 'D';
}

std::string WithoutAddresses(std::string text) {
  constexpr size_t kSize = 17;  // "5a:56:4b:00:00:01"
  for (size_t at = 0; at + kSize <= text.size(); ++at) {
    bool address = true;
    for (size_t i = 0; i < kSize && address; ++i) {
      const auto c = static_cast<unsigned char>(text[at + i]);
      address = i % 3 == 2 ? c == ':' : std::isxdigit(c) != 0;
    }
    if (address) text.replace(at, kSize, "(address)");
  }
  return text;
}

}  // namespace bthalctl
