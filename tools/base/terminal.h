// What is different on a terminal: colours and a progress bar that redraws itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/base/wait.h"

namespace bthalctl {

enum class Colour { kRed, kGreen, kYellow, kBlue, kGrey, kBold };

// text in a colour when stdout is a terminal (and NO_COLOR is not set), else text.
std::string Paint(Colour colour, const std::string& text);

std::string HumanBytes(uint64_t bytes);

// On stderr, and only if that is a terminal, so that it never gets into a script's output.
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
