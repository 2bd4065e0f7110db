#pragma once

#include <map>
#include <set>

#include "sim/controller/command_group.h"
#include "sim/controller/le_state.h"
#include "sim/radio/world.h"

namespace zvk {

// Scanning, legacy and extended: while it is on, each device in the air is reported at its own
// advertising interval.
class ScanCommands : public CommandGroup {
 public:
  ScanCommands(Context& context, LeState& le) : CommandGroup(context), le_(le) {}
  ~ScanCommands() override { Stop(); }
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  Writer SetParameters(LeState::Api api, ByteView params);
  Writer Enable(LeState::Api api, ByteView params);
  void Start(EventLoop::Duration duration);
  void Stop();
  void AdvertiseLater(const Advertiser& advertiser);
  void Hear(const Advertiser& advertiser);
  void Report(const Advertiser& advertiser, bool scan_response);

  LeState& le_;
  // Of the receiver, in units of 0.625 ms.
  static constexpr uint16_t kDefaultInterval = 16;
  uint16_t interval_ = kDefaultInterval;
  uint16_t window_ = kDefaultInterval;
  bool active_ = false;
  bool accept_list_only_ = false;
  bool filter_duplicates_ = false;
  bool scanning_ = false;
  std::map<Address, EventLoop::TimerId> timers_;  // of each advertiser's next packet
  EventLoop::TimerId end_ = EventLoop::kNoTimer;
  std::set<std::pair<Address, bool>> reported_;  // address and whether a scan response
};

}  // namespace zvk
