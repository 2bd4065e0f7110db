#pragma once

#include <string>

#include "tools/log/bring_up_steps.h"

namespace bthalctl {

// Shows the steps of a bring-up on stdout, one line each: on a terminal a step stands there from
// its beginning on, elsewhere it is written when it has ended.
class StepPrinter {
 public:
  StepPrinter();
  // Ends a line that a running step has left open.
  ~StepPrinter();
  StepPrinter(const StepPrinter&) = delete;
  StepPrinter& operator=(const StepPrinter&) = delete;

  void Show(const Progress& progress);

 private:
  void EraseOpenLine();

  const bool live_;
  std::string open_line_;  // of the running step, without its end
};

}  // namespace bthalctl
