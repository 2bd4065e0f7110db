// What happened between the service and its controller, as data: the one model behind timelines and
// reports. It holds no payload of data packets, no name and no address of a peer.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace bthalctl {

// Times are nanoseconds since 1970.

// A step of a bring-up, by the service's log.
struct HistoryStep {
  std::string name;
  std::string detail;  // what it found
  int64_t begin_ns = 0;
  int64_t end_ns = 0;
  bool failed = false;
  bool running = false;  // it had not ended when the log did
};

// From a command to its Command Complete or Command Status.
struct HistoryCommand {
  uint16_t opcode = 0;
  std::string name;
  std::string extension;  // of the service that it belongs to; empty for others
  int64_t begin_ns = 0;
  std::optional<int64_t> end_ns;  // none: not answered
  std::optional<uint8_t> status;  // none: not answered, or the answer has none
};

struct HistoryPacket {
  int64_t time_ns = 0;
  bool from_controller = false;
  std::string name;                // "ACL data", or what the command or event is called
  std::string extension;           // of the service that it belongs to; empty for others
  bool is_report = false;          // of the controller: neither data nor the answer to a command
  uint64_t size = 0;               // bytes, with the type byte
  std::optional<uint16_t> handle;  // of data
};

// Something was so from begin to end.
struct HistoryState {
  std::string name;   // "wake_lock"
  std::string value;  // "held"
  int64_t begin_ns = 0;
  int64_t end_ns = 0;
};

struct HistorySample {
  int64_t time_ns = 0;
  int64_t value = 0;
};

struct HistoryCounter {
  std::string unit;
  std::vector<HistorySample> samples;
};

// Something of one moment.
struct HistoryMark {
  enum class Kind { kNote, kWarning, kError, kReport, kLoss };
  Kind kind = Kind::kNote;
  int64_t time_ns = 0;
  std::string text;
  std::string meaning;  // where it is known
};

struct History {
  std::string source;  // where it was read from
  int64_t begin_ns = 0;
  int64_t end_ns = 0;
  std::vector<HistoryStep> steps;
  std::vector<HistoryCommand> commands;
  std::vector<HistoryPacket> packets;
  std::vector<HistoryState> states;
  std::map<std::string, HistoryCounter> counters;
  std::vector<HistoryMark> marks;
};

const char* MarkKindName(HistoryMark::Kind kind);

// Times as seconds since "begin".
nlohmann::json ToJson(const History& history);

}  // namespace bthalctl
