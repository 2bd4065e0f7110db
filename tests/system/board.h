#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bthal/scripted_controller.h"
#include "support/child_process.h"
#include "support/pty.h"
#include "support/temp_dir.h"
#include "system/handset.h"
#include "system/wire_vectors.h"

namespace test {

// The completion of a command as the vector's controller sends it, or with another status.
Bytes Completion(const WireVector& vector, const Bytes& command, uint8_t status = 0);

// A handset whose controller is the test's own script at the far end of a pty: a root folder with
// plain files for what the kernel has, and the service and a stack on it as processes.
class Board {
 public:
  // With the chip, the configuration and the patch file of a vector.
  Board(Mode mode, const WireVector& vector);
  // Fails the test if a sanitizer had anything to say in the processes.
  ~Board();

  // The controller's side. script sees the packets in the order of their arrival.
  void Play(ScriptedController::Script script);
  // Returns what of an unfinished packet has arrived by then.
  Bytes StopPlaying() { return controller_->Stop(); }
  Pty& pty() { return pty_; }

  void StartService();
  void StartStack(const std::vector<std::string>& arguments = {});
  ChildProcess& service() { return *service_; }
  ChildProcess* stack() { return stack_.get(); }
  std::string Log() const { return service_->Output(); }
  std::string StackOutput() const { return stack_ == nullptr ? "" : stack_->Output(); }
  std::string Path(const std::string& path) const { return folder_ / path; }

  // Contents of the files that a service leaves behind, ordered by name.
  struct Evidence {
    std::vector<std::string> crash_infos, core_dumps, tombstones;
    bool Empty() const { return crash_infos.empty() && core_dumps.empty() && tombstones.empty(); }
  };
  Evidence Left() const;

 private:
  TempDir folder_;
  Pty pty_;
  std::unique_ptr<ScriptedController> controller_;
  std::unique_ptr<ChildProcess> service_;
  std::unique_ptr<ChildProcess> stack_;
};

// What system_test_stack prints of the event that a stack gets with a report.
std::string RootInflammation(int code);

// Expects an abort in the function that belongs to code, one pair of crash files and one tombstone.
// reason: the reporter's additional text.
void ExpectDeath(int code, const std::string& reason, const std::optional<ChildResult>& end,
                 const std::string& log, const Board::Evidence& evidence);

}  // namespace test
