#include "sim/controller/controller.h"

#include "sim/base/log.h"
#include "sim/controller/groups.h"
#include "sim/wire.h"

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
      context_{loop,
               random,
               board_,
               chip_,
               out_,
               activity_,
               [this](std::function<void()> run) { after_answer_.push_back(std::move(run)); }},
      flow_(out_),
      bring_up_(Add<BringUpCommands>()),
      debug_(Add<DebugCommands>()),
      ccc_(Add<CccCommands>()),
      ewp_(Add<EwpCommands>()),
      radio_limits_(Add<RadioLimitCommands>()),
      connections_(Add<ConnectionCommands>(le_, flow_, *ccc_)),
      loopback_(Add<LoopbackCommands>(flow_)) {
  Own(MakeBasebandCommands(context_, [this] { Reset(); }));
  Own(MakeLeCommands(context_, le_));
  Own(MakeScanCommands(context_, le_));
  Own(MakeAdvertisingCommands(context_, le_));
  RegisterActivityCommands(context_, &table_);
  RegisterInfoCommands(context_, &table_);
  RegisterDataFlowCommands(flow_, &table_);
}

void Controller::Own(std::unique_ptr<CommandGroup> group) {
  group->Register(&table_);
  groups_.push_back(std::move(group));
}

template <typename Group, typename... Arguments>
Group* Controller::Add(Arguments&&... arguments) {
  auto group = std::make_unique<Group>(context_, std::forward<Arguments>(arguments)...);
  Group* const raw = group.get();
  Own(std::move(group));
  return raw;
}

Controller::~Controller() = default;

// Patch, speed, sleep mode and address stay.
void Controller::Reset() {
  for (const auto& group : groups_) group->Reset();
  activity_.Restart();
  flow_.Reset();
}

void Controller::OnPacket(PacketType type, ByteView packet) {
  if (type == PacketType::kCommand) {
    OnCommand(packet, {});
  } else if (board_.radio) {
    board_.radio(type, packet);
  } else if (loopback_->local()) {
    loopback_->OnData(type, packet);
  } else if (type == PacketType::kAcl) {
    connections_->OnAcl(packet);
  } else {
    Log("SCO or ISO data without a connection");
  }
}

bool Controller::Known(uint16_t opcode) const {
  return table_.Find(opcode) != nullptr && !NeedsPatch(opcode);
}

bool Controller::NeedsPatch(uint16_t opcode) const {
  return Group(opcode) == kLeGroup && chip_.preset->needs_patch && !chip_.patched;
}

void Controller::Run(uint16_t opcode, ByteView params, bool answer_given) {
  const CommandTable::Entry* entry = table_.Find(opcode);
  if (loopback_->Takes(opcode)) {
    loopback_->OnCommand(
        Writer().U16(opcode).U8(static_cast<unsigned>(params.size())).Append(params));
  } else if (!bring_up_->Takes(opcode)) {
    Log("command 0x%04X in the middle of a firmware download", opcode);
    out_.Complete(opcode, Writer{status::kDisallowed});
  } else if (board_.radio && Group(opcode) != kVendorGroup && !NeedsPatch(opcode)) {
    board_.radio(PacketType::kCommand,
                 Writer().U16(opcode).U8(static_cast<unsigned>(params.size())).Append(params));
  } else if (!Known(opcode)) {
    if (Group(opcode) == kVendorGroup || answer_given) {
      out_.Complete(opcode, Writer{status::kUnknownCommand});
    } else {
      out_.Status(opcode, status::kUnknownCommand);
    }
  } else if (entry->complete) {
    const Writer answer = params.size() < entry->min_params ? Writer{status::kInvalidParameters}
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
      out_.Complete(opcode, Writer{*change.status});
    }
  } else {
    Run(opcode, packet.From(3), change.parameters.has_value());
  }
  out_.ChangeAnswer({});
  const auto after = std::move(after_answer_);
  after_answer_.clear();
  for (const auto& run : after) run();
}

void Controller::OnLostSync(uint8_t bad) {
  Log("no packet type: 0x%02X; waiting for HCI Reset", bad);
  out_.Event(event::kHardwareError, Writer{kSyncLost});
}

}  // namespace zvk
