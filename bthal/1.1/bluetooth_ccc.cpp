#define LOG_TAG "bthal.ccc"

#include "bluetooth_ccc.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <root_folder/root_folder.h>
#include <unistd.h>

#include <cstdlib>

#include "hci/packet.h"

namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation {

using ::android::base::StringPrintf;
using V1_0::Direction;

namespace {

constexpr uint16_t kOpcodeCcc = 0xFD63;
constexpr uint8_t kSubEventCcc = 0xD0;
constexpr size_t kReportSize = 25;
// The parameter length is one byte, and nine bytes stand before the events.
constexpr size_t kMaxEvents = 0xFF - 9;
constexpr char kTimesyncFile[] = "/proc/bluetooth/timesync";
constexpr size_t kReadingSize = 20;
// More readings than a driver keeps: a driver that gives this many repeats one without end.
constexpr int kMaxStaleReadings = 1 << 16;

// How events are called on the wire.
constexpr struct {
  LmpEventId event;
  uint8_t wire;
} kEvents[] = {{LmpEventId::CONNECT_IND, 0xFF}, {LmpEventId::LL_PHY_UPDATE_IND, 0x18}};

std::optional<LmpEventId> EventOf(uint8_t wire) {
  for (const auto& known : kEvents) {
    if (known.wire == wire) return known.event;
  }
  return std::nullopt;
}

// at: of the address's least significant byte, which comes first.
Address AddressAt(const hidl_vec<uint8_t>& event, size_t at) {
  Address address;
  for (size_t i = 0; i < address.size(); ++i) address[i] = event[at + address.size() - 1 - i];
  return address;
}

uint64_t Le64At(const hidl_vec<uint8_t>& event, size_t at) {
  uint64_t value = 0;
  for (size_t i = 8; i-- > 0;) value = value << 8 | event[at + i];
  return value;
}

struct Report {
  uint64_t system_time;
  uint64_t bluetooth_time;
  Address address;
  Direction direction;
  LmpEventId event;
  uint16_t counter;
};

// Only queues a message. False when the callback's process has gone.
bool Tell(const CccCallbackWrapper& callback, const Report& report) {
  if (callback.v1_0 != nullptr) {
    return callback.v1_0
        ->lmpEventReceived({static_cast<uint32_t>(report.system_time),
                            static_cast<uint32_t>(report.bluetooth_time)},
                           report.address, report.direction, report.event, report.counter)
        .isOk();
  }
  return callback.v1_1
      ->lmpEventReceived_1_1({report.system_time, report.bluetooth_time}, report.address,
                             report.direction, report.event, report.counter)
      .isOk();
}

}  // namespace

std::vector<uint8_t> buildCommand(Operation operation, const Address& address,
                                  const std::vector<uint8_t>& events) {
  std::vector<uint8_t> params = {static_cast<uint8_t>(operation)};
  if (operation == Operation::kAdd || operation == Operation::kRemove) {
    for (size_t i = address.size(); i-- > 0;) params.push_back(address[i]);
    params.push_back(1);
  }
  if (operation == Operation::kAdd) {
    params.push_back(0);
    size_t count = events.size();
    if (count > kMaxEvents) {
      LOG(ERROR) << __func__ << ": too many events in input.";
      count = kMaxEvents;
    }
    params.insert(params.end(), events.begin(), events.begin() + static_cast<ptrdiff_t>(count));
  }
  return hci::BuildCommand(kOpcodeCcc, static_cast<uint8_t>(params.size()), params.data());
}

std::vector<uint8_t> buildAddCommand(const Address& address,
                                     const std::vector<LmpEventId>& events) {
  std::vector<uint8_t> wire;
  for (const LmpEventId event : events) {
    for (const auto& known : kEvents) {
      if (known.event == event) wire.push_back(known.wire);
    }
  }
  return buildCommand(Operation::kAdd, address, wire);
}

uint64_t getSystemTime() {
  const ::android::base::unique_fd fd(
      root_folder::Open(kTimesyncFile, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0) {
    LOG(WARNING) << __func__ << "Unable to open Timesync";
    return 0;
  }
  char text[kReadingSize + 1] = {};
  if (TEMP_FAILURE_RETRY(read(fd, text, kReadingSize)) <= 0) return 0;
  return strtoull(text, nullptr, 0);
}

std::string addressToString(const Address& address) {
  return StringPrintf("%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                      address[3], address[4], address[5]);
}

BluetoothCcc::BluetoothCcc()
    : Extension(LOG_TAG, kOpcodeCcc), callbacks_([this](const CccCallbackWrapper& callback) {
        std::lock_guard<std::mutex> guard(calls_);
        UnregisterAll(callback);
      }) {}

Return<void> BluetoothCcc::registerForLmpEvents(const sp<V1_0::IBluetoothCccCallback>& callback,
                                                const Address& address,
                                                const hidl_vec<LmpEventId>& lmpEventIds) {
  LOG(WARNING) << __func__ << ": Do not use 1.0 api";
  Shared().Register(__func__, {callback, nullptr}, address, lmpEventIds);
  return Void();
}

Return<void> BluetoothCcc::registerForLmpEvents_1_1(const sp<V1_1::IBluetoothCccCallback>& callback,
                                                    const Address& address,
                                                    const hidl_vec<LmpEventId>& lmpEventIds) {
  Shared().Register(__func__, {nullptr, callback}, address, lmpEventIds);
  return Void();
}

Return<void> BluetoothCcc::unregisterLmpEvents(const Address& address) {
  std::lock_guard<std::mutex> guard(Shared().calls_);
  Shared().Unregister(address);
  return Void();
}

void BluetoothCcc::Register(const char* operation, const CccCallbackWrapper& callback,
                            const Address& address, const hidl_vec<LmpEventId>& events) {
  std::lock_guard<std::mutex> call(calls_);
  const auto flow = this->flow();
  const std::vector<LmpEventId> list = events;
  if (flow == nullptr || callback.empty() || list.empty()) {
    LOG(WARNING) << operation << ": Unable to register for LMP events";
    return;
  }
  LOG(INFO) << operation << ": address: " << addressToString(address);
  const bool alive = callbacks_.insert(address, events, callback);
  if (callbacks_.size() == 1) {
    LOG(INFO) << operation << " Register for timesync event watcher";
    timesync_watcher_.emplace("Ccc_VendorEvent", flow.get(), hci::kEventVendorSpecific, 0,
                              [this](const hidl_vec<uint8_t>& event) {
                                return hci::ByteAt(event, 2) == kSubEventCcc &&
                                       handleCccSpecificEvent(event);
                              });
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    unanswered_.emplace_back(address, callback);
  }
  SendCommand(*flow, buildAddCommand(address, list));
  if (!alive) UnregisterAll(callback);
}

void BluetoothCcc::Unregister(const Address& address) {
  constexpr char kOperation[] = "unregisterLmpEvents";
  const auto flow = this->flow();
  if (flow == nullptr) {
    LOG(WARNING) << kOperation << ": unable to unregister for LMP events";
    return;
  }
  if (callbacks_.erase(address).empty()) {
    LOG(WARNING) << kOperation << ": address: " << addressToString(address)
                 << " has not registered before";
    return;
  }
  LOG(INFO) << kOperation << ": address: " << addressToString(address);
  if (callbacks_.size() == 0) {
    LOG(INFO) << kOperation << ": Unregister timesync event watcher";
    timesync_watcher_.reset();
  }
  SendCommand(*flow, buildCommand(Operation::kRemove, address, {}));
}

void BluetoothCcc::UnregisterAll(const CccCallbackWrapper& callback) {
  for (const Address& address : callbacks_.addresses(callback)) Unregister(address);
}

bool BluetoothCcc::OnEventReceive(const hidl_vec<uint8_t>& event) {
  if (!Extension::OnEventReceive(event)) return false;
  Address address;
  CccCallbackWrapper callback;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (unanswered_.empty()) return true;
    std::tie(address, callback) = unanswered_.front();
    unanswered_.pop_front();
  }
  const uint64_t result = hci::CommandCompleteStatus(event) == 0 ? 0 : UINT64_MAX;
  if (!Tell(callback, {result, result, address, Direction{0}, LmpEventId{0}, 0})) {
    LOG(WARNING) << __func__ << ": Unable to callback timesync report";
  }
  return true;
}

uint64_t BluetoothCcc::ReadingOf(uint8_t count) {
  uint64_t reading = 0;
  while (toggle_count_ < count) {
    reading = getSystemTime();
    ++toggle_count_;
  }
  return reading;
}

bool BluetoothCcc::handleCccSpecificEvent(const hidl_vec<uint8_t>& event) {
  LOG(INFO) << __func__ << ": Recv VSE <" << toString(event) << ">";
  if (event.size() != kReportSize) {
    LOG(ERROR) << __func__ << ": packet length not correct.";
    return false;
  }
  const std::optional<LmpEventId> known = EventOf(event[19]);
  if (!known) {
    LOG(WARNING) << __func__ << ": Unknown LMP event " << int{event[19]} << " report by controller";
    return false;
  }
  const uint8_t toggle_count = event[20];
  const uint16_t timesync_offset = hci::Le16At(event, 21);
  const Report report = {ReadingOf(toggle_count) - timesync_offset,
                         Le64At(event, 11),
                         AddressAt(event, 3),
                         Direction{event[10]},
                         *known,
                         hci::Le16At(event, 23)};
  LOG(INFO) << "Recv address: <" << addressToString(report.address) << ">"
            << ", direction: " << toString(report.direction)
            << ", lmp_event_id: " << toString(report.event) << ", event_counter: " << report.counter
            << ", toggle_count: " << int{toggle_count} << ", timesync_offset: " << timesync_offset
            << ", bluetooth_time: " << report.bluetooth_time
            << ", system_time: " << report.system_time;
  const CccCallbackWrapper callback = callbacks_.getCallback(report.address, report.event);
  if (!callback.empty() && !Tell(callback, report)) {
    LOG(WARNING) << __func__ << ": Unable to callback timesync report";
  }
  return true;
}

void BluetoothCcc::Start(hci::HciFlowControl* flow) {
  std::lock_guard<std::mutex> call(calls_);
  Extension::Start(flow);
  for (int stale = 0; getSystemTime() != 0; ++stale) {
    if (stale < kMaxStaleReadings) continue;
    LOG(WARNING) << kTimesyncFile << " has readings without end";
    break;
  }
}

void BluetoothCcc::Stop() {
  std::lock_guard<std::mutex> call(calls_);
  Extension::Stop();
  timesync_watcher_.reset();
  callbacks_.clear();
  toggle_count_ = 0;
  // Outlives the lock: with it may go the last reference to a client's object.
  std::deque<std::pair<Address, CccCallbackWrapper>> unanswered;
  std::lock_guard<std::mutex> guard(lock_);
  unanswered.swap(unanswered_);
}

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
