#include "sim/controller/controller.h"

#include "sim/base/log.h"
#include "sim/controller/baseband_commands.h"
#include "sim/controller/event_codes.h"
#include "sim/controller/info_commands.h"
#include "sim/firmware/image.h"

namespace zvk {
namespace {

constexpr uint8_t kSyncLost = 0x10;  // Hardware Error code
constexpr unsigned kVendorGroup = 0x3F;
constexpr unsigned kLeGroup = 0x08;

constexpr unsigned Group(uint16_t opcode) { return opcode >> 10; }

}  // namespace

Controller::Controller(EventLoop& loop, std::mt19937& random, BoardPort board,
                       const ChipState& chip)
    : board_(std::move(board)),
      chip_(chip),
      out_(board_.send),
      context_{
          loop,   random,
          board_, chip_,
          out_,   [this](std::function<void()> run) {
                 after_answer_.push_back(std::move(run)); }} {
  auto bring_up = std::make_unique<BringUpCommands>(context_);
  bring_up_ = bring_up.get();
  groups_.push_back(std::move(bring_up));
  groups_.push_back(std::make_unique<BasebandCommands>(context_, [this] { Reset(); }));
  groups_.push_back(std::make_unique<InfoCommands>(context_));
  for (const auto& group : groups_) group->Register(&table_);
}

Controller::~Controller() = default;

// Patch, speed, sleep mode and address stay.
void Controller::Reset() {
  for (const auto& group : groups_) group->Reset();
}

void Controller::OnPacket(PacketType type, ByteView packet) {
  if (type == PacketType::kCommand) {
    OnCommand(packet, {});
  }
}

void Controller::EndOfInput() {}

bool Controller::Known(uint16_t opcode) const {
  const bool rom_only = chip_.preset->needs_patch && !chip_.patched;
  return table_.Find(opcode) != nullptr && !(rom_only && Group(opcode) == kLeGroup);
}

void Controller::Run(uint16_t opcode, ByteView params) {
  const CommandTable::Entry* entry = table_.Find(opcode);
  if (bring_up_->downloading() && opcode != kWriteRamOpcode && opcode != kLaunchRamOpcode) {
    Log("command 0x%04X in the middle of a firmware download", opcode);
    out_.Complete(opcode, Packet{status::kDisallowed});
  } else if (!Known(opcode)) {
    if (Group(opcode) == kVendorGroup) {
      out_.Complete(opcode, Packet{status::kUnknownCommand});
    } else {
      out_.Status(opcode, status::kUnknownCommand);
    }
  } else if (entry->complete) {
    const Packet answer = params.size() < entry->min_params ? Packet{status::kInvalidParameters}
                                                            : entry->complete(params);
    if (!answer.bytes().empty()) out_.Complete(opcode, answer);
  } else {
    out_.Status(opcode, params.size() < entry->min_params ? status::kInvalidParameters
                                                          : entry->status(params));
  }
}

void Controller::OnCommand(ByteView packet, const AnswerChange& change) {
  const uint16_t opcode = packet.U16(0);
  out_.ChangeAnswer(change);
  if (change.status) {
    // Refused: the command has no effect.
    const CommandTable::Entry* entry = table_.Find(opcode);
    if (entry != nullptr && entry->status) {
      out_.Status(opcode, *change.status);
    } else {
      out_.Complete(opcode, Packet{*change.status});
    }
  } else {
    Run(opcode, packet.From(3));
  }
  out_.ChangeAnswer({});
  const auto after = std::move(after_answer_);
  after_answer_.clear();
  for (const auto& run : after) run();
}

void Controller::OnLostSync(uint8_t bad) {
  Log("no packet type: 0x%02X; waiting for HCI Reset", bad);
  out_.Event(event::kHardwareError, Packet{kSyncLost});
}

}  // namespace zvk
