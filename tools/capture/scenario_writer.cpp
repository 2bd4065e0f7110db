#include "tools/capture/scenario_writer.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "tools/wire/code_names.h"
#include "tools/wire/codes.h"
#include "tools/wire/packet_text.h"
#include "tools/wire/text.h"

namespace bthalctl {
namespace {

using wire::ByteView;
using wire::CapturedPacket;
using wire::CodeKind;
using wire::PacketType;

constexpr uint16_t kFirmwareRecord = 0xFC4C;
constexpr uint16_t kFirmwareStart = 0xFC4E;
constexpr uint16_t kVerboseConfig = 0xFC79;
constexpr int64_t kMillisecond = 1'000'000;         // ns
constexpr int64_t kLate = 500 * kMillisecond;       // what a host or a user notices
constexpr int64_t kDay = 86'400'000;                // ms, the longest time of a scenario
constexpr int64_t kRightAfter = 20 * kMillisecond;  // an event belongs to the command before it

struct Command {
  const CapturedPacket* packet;
  uint16_t opcode;
  unsigned nth;  // of this opcode
  const CapturedPacket* answer = nullptr;
};

// What an answer says (Core 5.3, 4.E.7.7.14 and 7.7.15).
struct Answer {
  explicit Answer(ByteView event)
      : complete(event[0] == wire::event::kCommandComplete),
        opcode(event.U16(complete ? 3 : 4)),
        credits(event[complete ? 2 : 3]),
        status(event[complete ? 5 : 2]),
        parameters(complete ? event.From(5) : ByteView()) {}

  static bool Is(const CapturedPacket& packet) {
    return packet.packet.type == PacketType::kEvent &&
           (packet.packet.bytes[0] == wire::event::kCommandComplete ||
            packet.packet.bytes[0] == wire::event::kCommandStatus);
  }

  bool complete;
  uint16_t opcode;
  unsigned credits;
  uint8_t status;
  ByteView parameters;  // of Command Complete, status first
};

std::string Number(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

// A longer time than a scenario can have is none: the clock was set meanwhile.
std::string Time(int64_t ns) { return std::to_string(std::min(ns / kMillisecond, kDay)) + "ms"; }

// Whether Command Complete answers this command (Core 5.3, 4.E.7).
bool IsCompleted(uint16_t opcode) {
  constexpr unsigned kBaseband = 3, kInformation = 4, kVendor = 0x3F;
  const unsigned group = opcode >> 10;
  return group == kBaseband || group == kInformation || group == kVendor;
}

class ScenarioWriter {
 public:
  std::string Write(const std::vector<CapturedPacket>& packets, const std::string& name) {
    FindAnswers(packets);
    const double seconds = packets.empty() ? 0 : static_cast<double>(packets.back().time_ns) / 1e9;
    char head[64];
    std::snprintf(head, sizeof head, ": %zu packets, %.3f s\n", packets.size(), seconds);
    text_ = "# From " + name + head;
    TellChip();
    size_t command = 0;
    for (const CapturedPacket& packet : packets) {
      if (packet.lost_before > 0) {
        text_ += "# " + std::to_string(packet.lost_before) + " packets are missing here\n";
      }
      if (command < commands_.size() && commands_[command].packet == &packet) {
        TellAnswer(command);
        ++command;
      } else if (packet.from_controller && answers_.count(&packet) == 0) {
        TellEvent(packet, command);
      } else if (packet.packet.type != PacketType::kCommand && !packet.from_controller) {
        ++left_out_["data packets of the host"];
      }
    }
    for (const auto& [what, count] : left_out_) {
      text_ += "# Left out: " + std::to_string(count) + " " + what + "\n";
    }
    return std::move(text_);
  }

 private:
  // An answer belongs to the last command of its opcode that has none yet.
  void FindAnswers(const std::vector<CapturedPacket>& packets) {
    std::map<uint16_t, unsigned> counts;
    for (const CapturedPacket& packet : packets) {
      if (!packet.from_controller && packet.packet.type == PacketType::kCommand) {
        const uint16_t opcode = ByteView(packet.packet.bytes).U16(0);
        commands_.push_back({&packet, opcode, ++counts[opcode]});
      } else if (Answer::Is(packet)) {
        const uint16_t opcode = Answer(packet.packet.bytes).opcode;
        const auto open =
            std::find_if(commands_.rbegin(), commands_.rend(), [&](const Command& command) {
              return command.opcode == opcode && command.answer == nullptr;
            });
        if (open == commands_.rend()) continue;
        open->answer = &packet;
        answers_.insert(&packet);
      }
    }
  }

  // In a fast download no record is answered.
  bool IsUnawaited(size_t index) const {
    if (commands_[index].opcode != kFirmwareRecord || index + 1 == commands_.size()) return false;
    const uint16_t next = commands_[index + 1].opcode;
    return next == kFirmwareRecord || next == kFirmwareStart;
  }

  void TellChip() {
    for (const Command& command : commands_) {
      if (command.opcode != kVerboseConfig || command.answer == nullptr) continue;
      struct Chip {
        uint8_t id;
        const char* option;
      };
      constexpr Chip kChips[] = {
          {0xB5, "B5"}, {0xAE, "AE"}, {0xAA, "AA"}, {0x20, "20"}, {0x30, "ready"}};
      const uint8_t id = Answer(command.answer->packet.bytes).parameters[1];
      for (const Chip& chip : kChips) {
        if (chip.id == id) text_ += std::string("# For zvksim --chip ") + chip.option + "\n";
      }
      return;
    }
  }

  void Add(const std::string& trigger, const std::string& action, const std::string& remark) {
    text_ += trigger + " " + action + (remark.empty() ? "" : "  # " + remark) + "\n";
  }

  void TellAnswer(size_t index) {
    const Command& command = commands_[index];
    const std::string on = "on " + Number(command.opcode, 4);
    const std::string nth = on + " nth " + std::to_string(command.nth);
    const std::string name = wire::PacketName(PacketType::kCommand, command.packet->packet.bytes);
    if (command.answer == nullptr) {
      if (!IsUnawaited(index)) Add(nth, "no-answer", name);
      return;
    }
    const std::string from = command.nth == 1 ? on : on + " from " + std::to_string(command.nth);
    const Answer answer(command.answer->packet.bytes);
    const int64_t delay = command.answer->time_ns - command.packet->time_ns;
    if (delay >= kLate) Add(nth, "late " + Time(delay), name);
    const unsigned granted = granted_.count(command.opcode) > 0 ? granted_[command.opcode] : 1;
    if (answer.credits != granted) {
      Add(from, "credits " + std::to_string(answer.credits), name);
      granted_[command.opcode] = answer.credits;
    }
    if (!answer.complete) {
      const std::string status = "status " + Number(answer.status, 2);
      if (answer.status != 0) Add(nth, status, name);
      if (answer.status != 0 || IsCompleted(command.opcode)) Add(nth, "command-" + status, name);
      return;
    }
    if (answer.status != 0) {
      Add(nth, "status " + Number(answer.status, 2), name);
      if (answer.parameters.size() > 1) Add(nth, "answer " + wire::Hex(answer.parameters), name);
      return;
    }
    // Values hold until others come; a status alone is what the simulator says by itself, but to a
    // command that it may not know.
    const std::string values = wire::Hex(answer.parameters);
    const auto known = values_.find(command.opcode);
    const bool has_name = wire::FindRow(CodeKind::kCommand, command.opcode) != nullptr;
    const bool said = known != values_.end() ? known->second == values
                                             : answer.parameters.size() == 1 && has_name;
    if (said) return;
    values_[command.opcode] = values;
    Add(from, values.empty() ? "answer" : "answer " + values, name);
  }

  // When an event came, as seen from the command before it; sent: how many were sent by then.
  std::string When(const CapturedPacket& event, size_t sent) const {
    const auto named = [](const char* word, const Command& command) {
      return word + (" " + Number(command.opcode, 4)) + " nth " + std::to_string(command.nth);
    };
    const auto answered = [&](size_t index) {
      return IsUnawaited(index) ||
             (commands_[index].answer != nullptr && commands_[index].answer < &event);
    };
    if (sent > 0 && !answered(sent - 1) &&
        event.time_ns - commands_[sent - 1].packet->time_ns < kRightAfter) {
      return named("on", commands_[sent - 1]);
    }
    for (size_t i = sent; i > 0; --i) {
      if (!answered(i - 1)) continue;
      const Command& command = commands_[i - 1];
      const CapturedPacket& base = command.answer != nullptr ? *command.answer : *command.packet;
      return named("after", command) + After(event.time_ns - base.time_ns);
    }
    return "power nth 1" + After(event.time_ns);
  }
  static std::string After(int64_t ns) { return ns < kMillisecond ? "" : " " + Time(ns); }

  void TellEvent(const CapturedPacket& packet, size_t sent) {
    const ByteView bytes(packet.packet.bytes);
    const std::string name = wire::PacketName(packet.packet.type, bytes);
    const bool is_event = packet.packet.type == PacketType::kEvent;
    if (is_event && bytes[0] == wire::event::kHardwareError) {
      Add(When(packet, sent), "hardware-error " + Number(bytes[2], 2), "");
    } else if (is_event && (bytes[0] == wire::event::kVendor || Answer::Is(packet))) {
      Add(When(packet, sent), "inject 04 " + wire::Hex(bytes), name);
    } else {
      ++left_out_[is_event ? name : "data packets of the controller"];
    }
  }

  std::vector<Command> commands_;
  std::set<const CapturedPacket*> answers_;  // those that belong to a command
  std::map<uint16_t, std::string> values_;   // return parameters that were told last
  std::map<uint16_t, unsigned> granted_;     // credits that were told last
  std::map<std::string, unsigned> left_out_;
  std::string text_;
};

}  // namespace

std::string ScenarioOf(const std::vector<CapturedPacket>& packets, const std::string& name) {
  return ScenarioWriter().Write(packets, name);
}

}  // namespace bthalctl
