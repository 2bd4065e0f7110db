#pragma once

#include <string>
#include <vector>

#include "tools/log/bring_up_steps.h"

namespace bthalctl {

// Shows the steps of a bring-up on stdout, one line each, in the order of their beginnings. On a
// terminal a running step is shown at once, elsewhere when it has ended. What happens during a step
// is shown behind it.
class StepPrinter {
 public:
  StepPrinter();
  // Shows what waits for the end of a running step.
  ~StepPrinter();
  StepPrinter(const StepPrinter&) = delete;
  StepPrinter& operator=(const StepPrinter&) = delete;

  void Show(const Progress& progress);

 private:
  const bool live_;
  bool in_step_ = false;
  std::vector<std::string> held_;  // lines of what happened during the running step
};

}  // namespace bthalctl
