#pragma once

#include <memory>
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

// One line of a simulator's trace.
struct TraceLine {
  double seconds;    // since its start
  char direction;    // '>' from the host, '<' to it, '-' the handset itself
  std::string text;  // without the packet's name
};

// Whether the controller hangs on a co-processor: BTHAL_TEST_CO_PROCESSOR is in the environment.
bool UsesCoProcessor();

// A simulated handset and the service on it, in a folder of their own.
class Handset {
 public:
  // Starts the simulator and waits until it is ready; the service is not started yet.
  explicit Handset(Mode mode, const std::vector<std::string>& simulator_options = {});
  // The same, playing a scenario and keeping a trace.
  Handset(const std::string& scenario, Mode mode,
          const std::vector<std::string>& simulator_options = {});

  void StartService();
  // Ends the service for good, as a platform that restarts it would.
  void KillService();

  ChildProcess& simulator() { return *simulator_; }
  ChildProcess& service() { return *service_; }
  const std::string& root() const { return folder_.path(); }
  std::string Path(const std::string& path) const { return folder_ / path; }
  // The service's log so far.
  std::string Log() const { return service_->Output(); }
  // What the simulator tells of the handset's state.
  std::string Status() const;
  bool WaitForStatus(const std::string& text) const;
  // The whole lines that are there by now.
  std::vector<TraceLine> Trace() const;

  std::vector<std::string> CtlCommand(const std::vector<std::string>& arguments) const;
  CtlResult Ctl(const std::vector<std::string>& arguments,
                std::chrono::milliseconds deadline = std::chrono::minutes(2)) const;
  // A stack of its own process: see stack_program.cpp.
  std::unique_ptr<ChildProcess> StartStack(const std::vector<std::string>& arguments = {}) const;

 private:
  void StartSimulator(Mode mode, const std::vector<std::string>& options);

  TempDir folder_;
  std::optional<ChildProcess> simulator_;
  std::optional<ChildProcess> service_;
};

std::string ServiceProgram();
// Runs system_test_stack on a root folder.
std::unique_ptr<ChildProcess> StartStackOn(const std::string& root,
                                           const std::vector<std::string>& arguments);

// The end of a log, enough to see what happened last.
std::string Tail(const std::string& log);

// Printed. BTHAL_TEST_SEED repeats a run.
unsigned NewSeed();

// The contents of the files in a folder, ordered by name.
std::vector<std::string> ContentsOf(const std::string& folder);

}  // namespace test
