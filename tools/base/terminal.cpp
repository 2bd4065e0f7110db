#include "tools/base/terminal.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace bthalctl {

bool IsRichTerminal(int fd) {
  const auto variable = [](const char* name) {
    const char* const value = std::getenv(name);
    return std::string(value == nullptr ? "" : value);
  };
  const std::string kind = variable("TERM");
  return isatty(fd) == 1 && !kind.empty() && kind != "dumb" && variable("NO_COLOR").empty();
}

std::string Paint(Colour colour, const std::string& text) {
  static const bool coloured = IsRichTerminal(STDOUT_FILENO);
  if (!coloured) return text;
  const char* code = "";
  switch (colour) {
    case Colour::kRed:
      code = "31";
      break;
    case Colour::kGreen:
      code = "32";
      break;
    case Colour::kYellow:
      code = "33";
      break;
    case Colour::kBlue:
      code = "34";
      break;
    case Colour::kGrey:
      code = "90";
      break;
    case Colour::kBold:
      code = "1";
      break;
  }
  return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

std::string HumanBytes(uint64_t bytes) {
  const char* units[] = {"B", "kB", "MB", "GB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1000 && unit < 3) {
    value /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)),
      total_(std::max<uint64_t>(total, 1)),
      visible_(IsRichTerminal(STDERR_FILENO)) {}

ProgressBar::~ProgressBar() {
  if (visible_) std::fputs("\r\x1b[K", stderr);
}

void ProgressBar::Show(uint64_t done) {
  const TimePoint now = Clock::now();
  if (!visible_ || now < next_) return;
  next_ = now + std::chrono::milliseconds(100);
  constexpr size_t kWidth = 30;
  const size_t full = static_cast<size_t>(std::min(done, total_) * kWidth / total_);
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const auto rate = static_cast<uint64_t>(seconds > 0 ? static_cast<double>(done) / seconds : 0);
  std::fprintf(stderr, "\r%s [%s%s] %3u%% %s, %s/s\x1b[K", label_.c_str(),
               std::string(full, '#').c_str(), std::string(kWidth - full, '.').c_str(),
               static_cast<unsigned>(std::min(done, total_) * 100 / total_),
               HumanBytes(done).c_str(), HumanBytes(rate).c_str());
}

}  // namespace bthalctl
