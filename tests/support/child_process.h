#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test {

// How a process ended, and what it had written to stdout and stderr by then.
struct ChildResult {
  int exit_code = -1;  // -1 when a signal ended it
  int signal = 0;      // 0 when it exited
};

// A program run beside the test. It is killed with the object, so a failed test leaves nothing.
class ChildProcess {
 public:
  // environment is added to the test's own. Output goes to a file of its own: see Output().
  ChildProcess(const std::vector<std::string>& command,
               const std::map<std::string, std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int signal);
  // Empty when it still runs at the deadline.
  std::optional<ChildResult> Wait(std::chrono::milliseconds deadline);
  // Everything written to stdout and stderr so far.
  std::string Output() const;
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds deadline);

 private:
  pid_t pid_ = -1;
  android::base::unique_fd output_;
  std::optional<ChildResult> result_;
};

// A program's build: the folder of the programs, bin/ of the build folder that the test is in.
std::string ProgramDir();

// Runs a command until it ends or, at the deadline, kills it.
ChildResult Run(const std::vector<std::string>& command, std::string* output,
                const std::map<std::string, std::string>& environment = {},
                std::chrono::milliseconds deadline = std::chrono::seconds(60));

// How often text stands in all of an output.
size_t CountOf(const std::string& text, const std::string& all);

// What /proc tells of a process.
int CountThreads(pid_t pid);
int CountDescriptors(pid_t pid);
int ResidentKilobytes(pid_t pid);

}  // namespace test
