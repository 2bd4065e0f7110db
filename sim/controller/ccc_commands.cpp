#include "sim/controller/ccc_commands.h"

#include "sim/wire.h"

namespace zvk {
namespace {

constexpr uint16_t kCccOpcode = 0xFD63;
constexpr size_t kMostAddresses = 32;
constexpr unsigned kMostOffset = 625;  // µs from an event to the toggle after it

enum Operation : uint8_t { kAdd = 1, kRemove = 2, kRemoveAll = 3 };

// Operation, address, 1; an addition continues with 0 and the events.
constexpr size_t kFixedPart = 8;

uint64_t Microseconds(EventLoop::Time time) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

}  // namespace

void CccCommands::Register(CommandTable* table) {
  table->Complete(kCccOpcode, 1, [this](ByteView p) { return Run(p); });
}

void CccCommands::Reset() {
  registered_.clear();
  toggles_ = 0;
}

Writer CccCommands::Run(ByteView params) {
  if (params[0] == kRemoveAll && params.size() == 1) {
    registered_.clear();
    return {status::kSuccess};
  }
  if (params.size() < kFixedPart || params[7] != 1) return {status::kInvalidParameters};
  const Address address = AddressAt(params, 1);
  if (params[0] == kRemove && params.size() == kFixedPart) {
    return {registered_.erase(address) == 1 ? status::kSuccess : status::kUnknownConnection};
  }
  if (params[0] == kAdd && params.size() > kFixedPart + 1 && params[8] == 0) {
    return Add(address, params.From(kFixedPart + 1));
  }
  return {status::kInvalidParameters};
}

Writer CccCommands::Add(const Address& address, ByteView events) {
  for (const uint8_t event : events) {
    if (event != kConnectInd && event != kPhyUpdateInd) return {status::kInvalidParameters};
  }
  if (registered_.count(address) == 0 && registered_.size() == kMostAddresses) {
    return {status::kMemoryExceeded};
  }
  registered_[address] = {events.begin(), events.end()};
  return {status::kSuccess};
}

EventLoop::Time CccCommands::ToggleOnce() {
  ++toggles_;
  return context_.board.toggle_time_sync();
}

void CccCommands::Toggle(unsigned times) {
  for (unsigned i = 0; i < times; ++i) ToggleOnce();
}

void CccCommands::OnLinkLayer(const Address& address, uint8_t id, Direction direction,
                              uint16_t counter) {
  const auto found = registered_.find(address);
  if (found == registered_.end() || found->second.count(id) == 0) return;
  const EventLoop::Time toggled = ToggleOnce();
  const auto offset = static_cast<unsigned>(context_.random() % kMostOffset);
  context_.out.Event(event::kVendor, Writer{vendor_event::kLinkLayer}
                                         .Append(address)
                                         .U8(0)
                                         .U8(direction)
                                         .U64(Microseconds(toggled) - Microseconds(start_) - offset)
                                         .U8(id)
                                         .U8(toggles_)
                                         .U16(offset)
                                         .U16(counter));
}

}  // namespace zvk
