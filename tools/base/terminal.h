// Output for terminals: colours, and a line that is drawn anew.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/base/wait.h"

namespace bthalctl {

enum class Colour { kRed, kGreen, kYellow, kBlue, kGrey, kBold };

// Whether fd takes colours and lines that are drawn anew: a terminal that is not "dumb", whose user
// has not set NO_COLOR.
bool IsRichTerminal(int fd);

// text in a colour where stdout takes it, else text.
std::string Paint(Colour colour, const std::string& text);

std::string HumanBytes(uint64_t bytes);

// On stderr, and only if that is a rich terminal.
class ProgressBar {
 public:
  ProgressBar(std::string label, uint64_t total);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Show(uint64_t done);

 private:
  const std::string label_;
  const uint64_t total_;
  const bool visible_;
  const TimePoint start_ = Clock::now();
  TimePoint next_ = start_;
};

}  // namespace bthalctl
