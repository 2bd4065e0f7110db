#pragma once

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tools/history/history.h"
#include "tools/link/exchange.h"
#include "tools/log/bring_up_steps.h"
#include "tools/log/log_line.h"
#include "tools/wire/capture_reader.h"

namespace bthalctl {

// When the last bring-up in a log begins, in ns since 1970; 0 when there is none.
int64_t LastBringUpNs(const std::vector<LogLine>& log);

// Makes the history of a capture and of the service's log.
class HistoryRecorder {
 public:
  // In their order.
  void AddCaptured(const wire::Captured& captured);
  // Something that cannot be read, when that was noticed.
  void AddLoss(const std::string& text) {
    history_.marks.push_back({HistoryMark::Kind::kLoss, last_ns_, text, ""});
  }
  // Of what was captured; 0: nothing.
  int64_t last_ns() const { return last_ns_; }
  // The steps of the last bring-up as the service tells them: its answer to "state".
  void AddSteps(const std::map<std::string, std::string>& state);
  // Warnings and errors from the last bring-up on, and the steps of that if the service has told
  // none. All of a log, after the capture and the steps.
  void AddLog(const std::vector<LogLine>& log);
  // End of the time that it is about; what is going on then ends there.
  History Finish(int64_t end_ns);

 private:
  void AddPacket(const wire::Packet& packet, bool from_controller, int64_t time_ns);
  void AddNote(const std::string& note, int64_t time_ns);
  void OnCommand(const wire::Packet& command, int64_t time_ns);
  void OnEvent(const wire::Packet& event, int64_t time_ns);
  void OnAnswer(const CommandAnswer& answer, wire::ByteView event, int64_t time_ns);
  void AddStep(std::istringstream fields);
  void AddProgress(const Progress& progress, int64_t start_ns);
  void SetState(const std::string& name, const std::string& value, int64_t time_ns);
  void EndStates(int64_t end_ns);
  void Sample(const std::string& counter, const char* unit, int64_t time_ns, int64_t value);

  History history_;
  std::deque<size_t> unanswered_;             // of history_.commands
  std::map<std::string, HistoryState> open_;  // what is so, by name
  int64_t last_ns_ = 0;                       // of what was captured
  bool told_ = false;                         // by the service: the steps
  int64_t in_controller_ = 0;                 // data packets that it has not reported completed
  int64_t packets_begin_ns_ = 0;
  std::array<std::map<int64_t, int64_t>, 2> bytes_;  // by direction and tenth of a second since
};

}  // namespace bthalctl
