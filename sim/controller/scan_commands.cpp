#include <map>
#include <set>

#include "sim/controller/groups.h"
#include "sim/radio/world.h"
#include "sim/wire.h"

namespace zvk {
namespace {

using Api = LeState::Api;

constexpr int kMaxDelayMs = 10;  // random part of every advertising interval
constexpr auto kScanDurationUnit = std::chrono::milliseconds(10);
constexpr auto kScanIntervalUnit = std::chrono::microseconds(625);
constexpr uint8_t kScanTimeout = 0x11;

// Legacy report: ADV_IND, ADV_SCAN_IND, ADV_NONCONN_IND, SCAN_RSP.
uint8_t LegacyType(const Advertiser& advertiser, bool scan_response) {
  if (scan_response) return 4;
  if (advertiser.connectable()) return 0;
  return advertiser.scannable ? 2 : 3;
}

// Extended report: connectable, scannable, scan response, legacy PDU.
uint16_t ExtendedType(const Advertiser& advertiser, bool scan_response) {
  unsigned type = 0x10;
  if (advertiser.connectable()) type |= 0x01;
  if (advertiser.scannable) type |= 0x02;
  if (scan_response) type |= 0x08;
  return static_cast<uint16_t>(type);
}

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

void ScanCommands::Register(CommandTable* table) {
  table->Complete(0x200B, 7, [this](ByteView p) { return SetParameters(Api::kLegacy, p); });
  table->Complete(0x200C, 2, [this](ByteView p) { return Enable(Api::kLegacy, p); });
  table->Complete(0x2041, 3, [this](ByteView p) { return SetParameters(Api::kExtended, p); });
  table->Complete(0x2042, 6, [this](ByteView p) { return Enable(Api::kExtended, p); });
}

void ScanCommands::Reset() {
  Stop();
  active_ = false;
  interval_ = window_ = kDefaultInterval;
  accept_list_only_ = false;
}

Writer ScanCommands::SetParameters(Api api, ByteView params) {
  if (!le_.Use(api) || scanning_) return {status::kDisallowed};
  if (api == Api::kLegacy) {
    if (params[0] > 1) return {status::kInvalidParameters};
    active_ = params[0] == 1;
    interval_ = params.U16(1);
    window_ = params.U16(3);
    accept_list_only_ = (params[6] & 1) != 0;
    return {status::kSuccess};
  }
  size_t phys = 0;
  for (unsigned bits = params[2]; bits != 0; bits >>= 1) phys += bits & 1;
  if (phys == 0 || params.size() != 3 + 5 * phys) return {status::kInvalidParameters};
  active_ = params[3] == 1;
  interval_ = params.U16(4);
  window_ = params.U16(6);
  accept_list_only_ = (params[1] & 1) != 0;
  return {status::kSuccess};
}

Writer ScanCommands::Enable(Api api, ByteView params) {
  if (!le_.Use(api)) return {status::kDisallowed};
  if (params[0] > 1) return {status::kInvalidParameters};
  Stop();
  if (params[0] == 0) return {status::kSuccess};
  filter_duplicates_ = params[1] != 0;
  const int units = api == Api::kExtended ? params.U16(2) : 0;
  context_.then([this, units] { Start(units * kScanDurationUnit); });
  return {status::kSuccess};
}

void ScanCommands::Start(EventLoop::Duration duration) {
  scanning_ = true;
  context_.activity.StartScan(interval_ * kScanIntervalUnit, window_ * kScanIntervalUnit);
  for (const Advertiser& advertiser : World()) AdvertiseLater(advertiser);
  if (duration == EventLoop::Duration::zero()) return;
  end_ = context_.loop.After(duration, [this] {
    Stop();
    context_.out.LeEvent(Writer{kScanTimeout});
  });
}

void ScanCommands::Stop() {
  if (scanning_) context_.activity.StopScan();
  scanning_ = false;
  for (auto& [address, timer] : timers_) context_.loop.Cancel(&timer);
  timers_.clear();
  context_.loop.Cancel(&end_);
  reported_.clear();
}

void ScanCommands::AdvertiseLater(const Advertiser& advertiser) {
  const std::chrono::milliseconds delay(context_.random() % kMaxDelayMs);
  timers_[advertiser.address] =
      context_.loop.After(advertiser.interval + delay, [this, &advertiser] {
        AdvertiseLater(advertiser);
        Hear(advertiser);
      });
}

void ScanCommands::Hear(const Advertiser& advertiser) {
  if (le_.connected.count(advertiser.address) > 0) return;
  if (accept_list_only_ &&
      le_.accept_list.count({advertiser.address_type, advertiser.address}) == 0) {
    return;
  }
  Report(advertiser, false);
  if (active_ && advertiser.scannable) Report(advertiser, true);
}

void ScanCommands::Report(const Advertiser& advertiser, bool scan_response) {
  if (filter_duplicates_ && !reported_.insert({advertiser.address, scan_response}).second) return;
  const Bytes& data = scan_response ? advertiser.scan_response : advertiser.data;
  const auto size = static_cast<unsigned>(data.size());
  const Address& address = advertiser.address;
  const auto rssi = static_cast<uint8_t>(advertiser.rssi);
  constexpr uint8_t kOneReport = 1;
  if (le_.api == Api::kLegacy) {
    context_.out.LeEvent(Writer{le_event::kAdvertisingReport, kOneReport}
                             .U8(LegacyType(advertiser, scan_response))
                             .U8(advertiser.address_type)
                             .Append(address)
                             .U8(size)
                             .Append(data)
                             .U8(rssi));
    return;
  }
  constexpr uint8_t kPhy1M = 1;
  constexpr uint8_t kNoSet = 0xFF;
  constexpr uint8_t kNoTxPower = 0x7F;
  context_.out.LeEvent(Writer{le_event::kExtendedAdvertisingReport, kOneReport}
                           .U16(ExtendedType(advertiser, scan_response))
                           .U8(advertiser.address_type)
                           .Append(address)
                           .U8(kPhy1M)
                           .U8(0)
                           .U8(kNoSet)
                           .U8(kNoTxPower)
                           .U8(rssi)
                           .U16(0)    // no periodic advertising
                           .Zeros(7)  // no direct address
                           .U8(size)
                           .Append(data));
}

}  // namespace

std::unique_ptr<CommandGroup> MakeScanCommands(Context& context, LeState& le) {
  return std::make_unique<ScanCommands>(context, le);
}

}  // namespace zvk
