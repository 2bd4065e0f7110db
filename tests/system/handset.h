#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace test {

// How the service handles Bluetooth-on: accelerated brings the controller up when it starts, plain
// when the first stack attaches.
enum class Mode { kAccelerated, kPlain };
std::string ModeName(Mode mode);
inline void PrintTo(Mode mode, std::ostream* out) { *out << ModeName(mode); }

struct CtlResult {
  int exit_code = -1;
  std::string output;  // stdout and stderr
};

// Whether the controller hangs on a co-processor: BTHAL_TEST_CO_PROCESSOR is in the environment.
bool OnCoProcessor();

// A simulated handset and the service on it, in a folder of their own.
class Handset {
 public:
  // Starts the simulator and waits until it is ready; the service is not started yet.
  explicit Handset(Mode mode, const std::vector<std::string>& simulator_options = {});

  void StartService();
  // Ends the service for good, as a platform that restarts it would.
  void KillService();

  ChildProcess& service() { return *service_; }
  const std::string& root() const { return folder_.path(); }
  std::string Path(const std::string& path) const { return folder_ / path; }
  // The service's log so far.
  std::string Log() const { return service_->Output(); }

  std::vector<std::string> CtlCommand(const std::vector<std::string>& arguments) const;
  CtlResult Ctl(const std::vector<std::string>& arguments,
                std::chrono::milliseconds deadline = std::chrono::minutes(2)) const;

 private:
  TempDir folder_;
  std::optional<ChildProcess> simulator_;
  std::optional<ChildProcess> service_;
};

std::string ServiceProgram();
std::string StackProgram();  // system_test_stack

}  // namespace test
