// How a command ends: its exit code, and the line that the user reads.
#pragma once

#include <stdexcept>
#include <string>

namespace bthalctl {

// Documented in README.md and --help; scripts rely on them.
enum class ExitCode : int {
  kDone = 0,
  kFailed = 1,     // refused or failed
  kUsage = 2,      // wrong usage
  kNoService = 3,  // no service, or it died
  kBusy = 4,       // another program holds Bluetooth
};

// Ends the command; what() is the one line that the user reads.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  explicit Failure(const std::string& text) : Failure(ExitCode::kFailed, text) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

// SIGINT or SIGTERM arrived: the program ends with 128 + signal, as a shell has it. Where that is
// the way to end a command, the command catches it.
struct Interrupted {
  int signal = 0;
};

// "cannot do it: reason of errno"
std::string WithErrno(const std::string& text);

}  // namespace bthalctl
