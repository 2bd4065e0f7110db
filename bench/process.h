#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A program that runs as long as this object, its standard error thrown away.
class Process {
 public:
  explicit Process(std::vector<std::string> command);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Processor time of all threads so far.
  double CpuSeconds() const;

 private:
  pid_t pid_;
};

}  // namespace bench
