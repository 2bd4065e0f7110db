#include <map>

#include "sim/controller/groups.h"
#include "sim/wire.h"

namespace zvk {
namespace {

using Api = LeState::Api;

constexpr size_t kSets = 4;
constexpr uint8_t kLastHandle = 0xEF;
constexpr uint16_t kMaxDataBytes = 251;
constexpr uint8_t kTxPower = 7;  // dBm
constexpr auto kDurationUnit = std::chrono::milliseconds(10);

// Advertising, legacy and extended: accepted and kept; nobody in the simulated air listens.
class AdvertisingCommands : public CommandGroup {
 public:
  AdvertisingCommands(Context& context, LeState& le) : CommandGroup(context), le_(le) {}
  ~AdvertisingCommands() override { AdvertisingCommands::Reset(); }
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  struct Set {
    bool enabled = false;
    EventLoop::TimerId end = EventLoop::kNoTimer;
  };

  void RegisterLegacy(CommandTable* table);
  void RegisterExtended(CommandTable* table);
  Writer SetParameters(ByteView params);
  Writer Enable(ByteView params);
  Writer Remove(uint8_t handle);
  void EndAfter(uint8_t handle, EventLoop::Duration duration);

  LeState& le_;
  std::map<uint8_t, Set> sets_;  // by advertising handle
};

void AdvertisingCommands::Reset() {
  for (auto& [handle, set] : sets_) context_.loop.Cancel(&set.end);
  sets_.clear();
}

void AdvertisingCommands::Register(CommandTable* table) {
  RegisterLegacy(table);
  RegisterExtended(table);
}

void AdvertisingCommands::RegisterLegacy(CommandTable* table) {
  const auto accept = [this](ByteView) {
    return Writer{le_.Use(Api::kLegacy) ? status::kSuccess : status::kDisallowed};
  };
  table->Complete(0x2006, 15, accept);  // parameters
  table->Complete(0x2008, 1, accept);   // data
  table->Complete(0x2009, 1, accept);   // scan response data
  table->Complete(0x200A, 1, accept);   // enable
  table->Complete(0x2007, 0, [this](ByteView) {
    if (!le_.Use(Api::kLegacy)) return Writer{status::kDisallowed};
    return Writer{status::kSuccess}.U8(kTxPower);
  });
}

void AdvertisingCommands::RegisterExtended(CommandTable* table) {
  const auto known_set = [this](ByteView p) {
    if (!le_.Use(Api::kExtended)) return Writer{status::kDisallowed};
    return Writer{sets_.count(p[0]) > 0 ? status::kSuccess : status::kUnknownAdvertisingIdentifier};
  };
  table->Complete(0x2035, 7, known_set);  // random address
  table->Complete(0x2037, 4, known_set);  // data
  table->Complete(0x2038, 4, known_set);  // scan response data
  table->Complete(0x2036, 25, [this](ByteView p) { return SetParameters(p); });
  table->Complete(0x2039, 2, [this](ByteView p) { return Enable(p); });
  table->Complete(0x203A, Writer{status::kSuccess}.U16(kMaxDataBytes));
  table->Complete(0x203B, Writer{status::kSuccess}.U8(kSets));
  table->Complete(0x203C, 1, [this](ByteView p) { return Remove(p[0]); });
  table->Complete(0x203D, 0, [this](ByteView) {
    for (const auto& [handle, set] : sets_) {
      if (set.enabled) return Writer{status::kDisallowed};
    }
    Reset();
    return Writer{status::kSuccess};
  });
}

Writer AdvertisingCommands::SetParameters(ByteView params) {
  const uint8_t handle = params[0];
  if (!le_.Use(Api::kExtended)) return {status::kDisallowed};
  if (handle > kLastHandle) return {status::kInvalidParameters};
  const auto found = sets_.find(handle);
  if (found == sets_.end() && sets_.size() == kSets) return {status::kMemoryExceeded};
  if (found != sets_.end() && found->second.enabled) return {status::kDisallowed};
  sets_[handle];
  return Writer{status::kSuccess}.U8(kTxPower);
}

Writer AdvertisingCommands::Enable(ByteView params) {
  const bool enable = params[0] == 1;
  const size_t count = params[1];
  if (!le_.Use(Api::kExtended)) return {status::kDisallowed};
  if (params.size() != 2 + 4 * count || (enable && count == 0)) {
    return {status::kInvalidParameters};
  }
  for (size_t i = 0; i < count; ++i) {
    if (sets_.count(params[2 + 4 * i]) == 0) return {status::kUnknownAdvertisingIdentifier};
  }
  for (auto& [handle, set] : sets_) {
    if (count == 0) {  // all of them
      set.enabled = false;
      context_.loop.Cancel(&set.end);
    }
  }
  for (size_t i = 0; i < count; ++i) {
    const uint8_t handle = params[2 + 4 * i];
    Set& set = sets_[handle];
    context_.loop.Cancel(&set.end);
    set.enabled = enable;
    const int units = params.U16(3 + 4 * i);
    if (enable && units > 0) EndAfter(handle, units * kDurationUnit);
  }
  return {status::kSuccess};
}

void AdvertisingCommands::EndAfter(uint8_t handle, EventLoop::Duration duration) {
  constexpr uint8_t kAdvertisingTimeout = 0x3C;
  sets_[handle].end = context_.loop.After(duration, [this, handle] {
    Set& set = sets_[handle];
    set.enabled = false;
    set.end = EventLoop::kNoTimer;
    context_.out.LeEvent(
        Writer{le_event::kAdvertisingSetTerminated, kAdvertisingTimeout, handle}.U16(0).U8(0));
  });
}

Writer AdvertisingCommands::Remove(uint8_t handle) {
  const auto found = sets_.find(handle);
  if (found == sets_.end()) return {status::kUnknownAdvertisingIdentifier};
  if (found->second.enabled) return {status::kDisallowed};
  sets_.erase(found);
  return {status::kSuccess};
}

}  // namespace

std::unique_ptr<CommandGroup> MakeAdvertisingCommands(Context& context, LeState& le) {
  return std::make_unique<AdvertisingCommands>(context, le);
}

}  // namespace zvk
