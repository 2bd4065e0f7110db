#define LOG_TAG "bthal.activity"

#include "bluetooth_Activity.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include "evidence/anchor_records.h"
#include "evidence/bring_up_steps.h"
#include "evidence/debug_files.h"
#include "hci/packet.h"
#include "hci/scoped_event_watcher.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity {
namespace {

using ::android::base::StringPrintf;
using hci::ByteAt;
using hci::Le16At;

constexpr size_t kRecordLimit = 512;
constexpr std::chrono::milliseconds kQuietTime{2000};
constexpr uint32_t kMinDurationMs = 5001;

constexpr uint8_t kEventConnectionComplete = 0x03;
constexpr uint8_t kEventDisconnectionComplete = 0x05;
constexpr uint8_t kEventLeMeta = 0x3E;
constexpr uint8_t kLeAdvertisingReport = 0x02;
constexpr uint8_t kLeEnhancedConnectionComplete = 0x0A;
constexpr uint8_t kLeExtendedAdvertisingReport = 0x0D;
constexpr uint16_t kOpcodeCreateConnection = 0x0405;
constexpr uint16_t kOpcodeDisconnect = 0x0406;
constexpr uint16_t kOpcodeSetExtendedScanParameters = 0x2041;
constexpr uint16_t kOpcodeSetExtendedScanEnable = 0x2042;
constexpr uint16_t kOpcodeExtendedCreateConnection = 0x2043;

// The lower 12 bits of a handle with its flags.
uint16_t HandleAt(const hidl_vec<uint8_t>& packet, size_t at) {
  return Le16At(packet, at) & 0x0FFF;
}

// at: of the address's least significant byte, which comes first.
std::string AddressAt(const hidl_vec<uint8_t>& packet, size_t at) {
  return StringPrintf("%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx", ByteAt(packet, at + 5),
                      ByteAt(packet, at + 4), ByteAt(packet, at + 3), ByteAt(packet, at + 2),
                      ByteAt(packet, at + 1), ByteAt(packet, at));
}

template <typename Record>
void Append(std::list<Record>& history, const Record& record) {
  if (history.size() >= kRecordLimit) history.pop_front();
  history.push_back(record);
}

// A ruled heading and the names of the columns.
std::string Section(const char* title, const char* columns) {
  return StringPrintf("%s\n %s :\n%s\n%s\n", debug::kRule, title, debug::kRule, columns);
}

}  // namespace

std::string log_message_timestamp() { return debug::TimestampNow(); }

BtActivitiesLogger* BtActivitiesLogger::GetInstacne() {
  static auto* instance = new BtActivitiesLogger;
  return instance;
}

void BtActivitiesLogger::OnBluetoothEnabled(hci::HciFlowControl* flow) {
  ALOGI("%s", __func__);
  evidence::BringUpSteps::Get().Mark("the extensions are ready");
  auto le_adv_timer = Timer::Create("bthal_le_adv", [this] { LeAdvTimeout(); });
  if (le_adv_timer == nullptr) ALOGE("%s: cannot create le_adv_timer!", __func__);
  auto acl_data_timer = Timer::Create("bthal_acl_data", [this] { AclDataTimeout(); });
  if (acl_data_timer == nullptr) ALOGE("%s: cannot create acl_data_timer!", __func__);
  // Made outside the lock: a watcher registers itself, which takes the flow control's.
  std::vector<std::unique_ptr<hci::HciEventWatcher>> watchers;
  watchers.push_back(std::make_unique<hci::ScopedEventWatcher>(
      "CreateConnectCompleteEvent", flow, kEventConnectionComplete, kOpcodeCreateConnection,
      [this](const hidl_vec<uint8_t>& event) { return OnConnection(event); }));
  watchers.push_back(std::make_unique<hci::ScopedEventWatcher>(
      "DisConnectCompleteEvent", flow, kEventDisconnectionComplete, kOpcodeDisconnect,
      [this](const hidl_vec<uint8_t>& event) { return OnDisconnection(event); }));

  std::lock_guard<std::mutex> guard(lock_);
  // A burst that began while nothing ended it would last too long.
  le_adv_.active = false;
  le_adv_.timer.swap(le_adv_timer);
  acl_data_.active = false;
  acl_data_.timer.swap(acl_data_timer);
  watchers_.swap(watchers);
}

void BtActivitiesLogger::OnBluetoothDisabled() {
  ALOGI("%s", __func__);
  LeAdvTimeout();
  AclDataTimeout();
  // All of them wait for what runs in them, which takes the lock.
  std::vector<std::unique_ptr<hci::HciEventWatcher>> watchers;
  std::unique_ptr<Timer> le_adv_timer;
  std::unique_ptr<Timer> acl_data_timer;
  {
    std::lock_guard<std::mutex> guard(lock_);
    watchers.swap(watchers_);
    le_adv_timer.swap(le_adv_.timer);
    acl_data_timer.swap(acl_data_.timer);
  }
  while (!watchers.empty()) watchers.pop_back();  // in this order
}

bool BtActivitiesLogger::OnConnection(const hidl_vec<uint8_t>& event) {
  const uint16_t handle = HandleAt(event, 3);
  const std::string address = AddressAt(event, 5);
  ALOGI("CreateConnectCompleteEvent, conn_handle:%03hX, conn_bda: %s", handle, address.c_str());
  std::lock_guard<std::mutex> guard(lock_);
  StoreDevice(handle, address);
  return false;
}

bool BtActivitiesLogger::OnDisconnection(const hidl_vec<uint8_t>& event) {
  const uint16_t handle = HandleAt(event, 3);
  std::string address;
  std::lock_guard<std::mutex> guard(lock_);
  const auto device = devices_.find(handle);
  if (device != devices_.end()) {
    address = device->second.address;
    devices_.erase(device);
  }
  ALOGI("DisConnectCompleteEvent, conn_handle:%03hX, conn_bda: %s", handle, address.c_str());
  return false;
}

void BtActivitiesLogger::StoreDevice(uint16_t handle, const std::string& address) {
  devices_[handle] = {handle, address, log_message_timestamp()};
}

void BtActivitiesLogger::LogActivities(uint8_t packet_type, const hidl_vec<uint8_t>& packet) {
  std::lock_guard<std::mutex> guard(lock_);
  if (packet_type == hci::HCI_PACKET_TYPE_EVENT) {
    LogEvent(packet);
  } else if (packet_type == hci::HCI_PACKET_TYPE_COMMAND) {
    LogCommand(packet);
  } else if (packet_type == hci::HCI_PACKET_TYPE_ACL_DATA) {
    CountPacket(acl_data_, HandleAt(packet, 0));
  }
}

void BtActivitiesLogger::LogEvent(const hidl_vec<uint8_t>& event) {
  constexpr char kOperation[] = "LogActivities";
  if (ByteAt(event, 0) != kEventLeMeta) return;
  switch (ByteAt(event, 2)) {
    case kLeEnhancedConnectionComplete: {
      constexpr uint8_t kAbsent = 0xFF;
      if ((event.size() > 3 ? event[3] : kAbsent) != 0) return;
      const uint16_t handle = HandleAt(event, 4);
      const std::string address = AddressAt(event, 8);
      ALOGI("%s: LE Enhanced Connection Complete, conn_handle:%03hX, conn_bda: %s", kOperation,
            handle, address.c_str());
      StoreDevice(handle, address);
      return;
    }
    case kLeAdvertisingReport:
    case kLeExtendedAdvertisingReport:
      CountPacket(le_adv_, 0);
      return;
    default:
      return;
  }
}

void BtActivitiesLogger::LogCommand(const hidl_vec<uint8_t>& command) {
  constexpr char kOperation[] = "LogActivities";
  const uint16_t opcode = Le16At(command, 0);
  if (opcode == kOpcodeSetExtendedScanParameters) {
    const int window = Le16At(command, 9);
    const int ratio = window == 0 ? 0 : Le16At(command, 7) / window;
    const char* mode = ratio == 10  ? "LOW_POWER"
                       : ratio == 4 ? "BALANCED"
                       : ratio == 1 ? "LOW_LATENCY"
                                    : "Other";
    ALOGI("%s: %s ScanMode", kOperation, mode);
  } else if (opcode == kOpcodeSetExtendedScanEnable) {
    const uint8_t enable = ByteAt(command, 3);
    if (enable > 1) {
      ALOGI("%s: Invalid Parameter of LE_Set_Scan_Enable", kOperation);
    } else {
      ALOGI("%s: %s LE Scanning, 0x%2hx", kOperation, enable == 0 ? "Disable" : "Enable", opcode);
    }
  } else if (opcode == kOpcodeExtendedCreateConnection) {
    ALOGI("%s: LE Extended Create Connection", kOperation);
  }
}

void BtActivitiesLogger::CountPacket(Burst& burst, uint16_t handle) {
  if (!burst.active) {
    burst.active = true;
    burst.start_time = clock_();
    burst.start = log_message_timestamp();
    burst.count = 0;
    burst.handle = handle;
  }
  ++burst.count;
  if (burst.timer == nullptr) {
    ALOGE("%s: cannot arm %s!", "LogActivities", burst.timer_name);
  } else {
    burst.timer->Arm(kQuietTime, std::chrono::milliseconds(0));
  }
}

std::optional<acl_data_activities_t> BtActivitiesLogger::EndBurst(Burst& burst) {
  if (burst.timer != nullptr) burst.timer->Disarm();
  if (!burst.active) return std::nullopt;
  burst.active = false;
  const auto duration =
      std::chrono::duration_cast<std::chrono::milliseconds>(clock_() - burst.start_time);
  const auto duration_ms = static_cast<uint32_t>(duration.count());
  if (duration_ms < kMinDurationMs) return std::nullopt;
  return {{burst.start, log_message_timestamp(), burst.handle, duration_ms, burst.count}};
}

void BtActivitiesLogger::LeAdvTimeout() {
  std::optional<acl_data_activities_t> ended;
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended = EndBurst(le_adv_);
  }
  if (ended) UpdateLeAdvStat({ended->start, ended->end, ended->duration_ms, ended->packets});
}

void BtActivitiesLogger::AclDataTimeout() {
  std::optional<acl_data_activities_t> ended;
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended = EndBurst(acl_data_);
  }
  if (ended) UpdateAclDataStat(*ended);
}

void BtActivitiesLogger::UpdateLeAdvStat(const ble_adv_activities_t& stat) {
  LOG(INFO) << __func__ << ": start: " << stat.start << " - end: " << stat.end
            << " duration: " << stat.duration_ms << " le_adv_count: " << stat.reports;
  std::lock_guard<std::mutex> guard(lock_);
  Append(le_adv_history_, stat);
}

void BtActivitiesLogger::UpdateAclDataStat(const acl_data_activities_t& stat) {
  LOG(INFO) << __func__ << ": start: " << stat.start << " - end: " << stat.end
            << " conn_handle: " << stat.handle << " duration: " << stat.duration_ms
            << " acl_data_count: " << stat.packets;
  std::lock_guard<std::mutex> guard(lock_);
  Append(acl_data_history_, stat);
}

void BtActivitiesLogger::UpdateBthalWakelockStat(const bthal_wakelock_stat_t& stat) {
  LOG(INFO) << __func__ << ": start: " << stat.wake_time << " - end: " << stat.sleep_time
            << " duration: " << stat.duration_ms << " tx_packet_count: " << stat.transmissions;
  std::lock_guard<std::mutex> guard(lock_);
  Append(wakelock_history_, stat);
}

void BtActivitiesLogger::DumpBtActivitiesStatistics(int fd) {
  const std::string stars = std::string(45, '*') + "\n";
  std::string text = stars + "*   Begin Of Bluetooth Activities Reports   *\n" + stars;
  {
    std::lock_guard<std::mutex> guard(lock_);
    text += Section("1. Connected devices Report", "handle, bt address, timestamp");
    for (const auto& [handle, device] : devices_) {
      ALOGI("%s: HCI_ACL: conn_handle: %03hx, bda: %s, created_timestamp: %s", __func__, handle,
            device.address.c_str(), device.timestamp.c_str());
      text +=
          StringPrintf("%d, %s, %s\n", handle, device.address.c_str(), device.timestamp.c_str());
    }
    text += Section("2. BtHal Tx Wakelock Report",
                    "start_timestamp, end_timestamp, during, tx_packet_count");
    for (const bthal_wakelock_stat_t& stat : wakelock_history_) {
      text += StringPrintf("%s, %s, %u, %u\n", stat.wake_time.c_str(), stat.sleep_time.c_str(),
                           stat.duration_ms, stat.transmissions);
    }
    text += Section("3. BtHal ACL RX Data Report",
                    "start_timestamp, end_timestamp, conn_handle, during, acl_rx_data_count");
    for (const acl_data_activities_t& stat : acl_data_history_) {
      text += StringPrintf("%s, %s, %d, %u, %u\n", stat.start.c_str(), stat.end.c_str(),
                           stat.handle, stat.duration_ms, stat.packets);
    }
    text += Section("4. BLE Advertising Report",
                    "start_timestamp, end_timestamp, duration, le_adv_counter");
    for (const ble_adv_activities_t& stat : le_adv_history_) {
      text += StringPrintf("%s, %s, %u, %u\n", stat.start.c_str(), stat.end.c_str(),
                           stat.duration_ms, stat.reports);
    }
  }
  text += stars + "*    End Of Bluetooth Activities Reports    *\n" + stars;
  base::WriteStringToFd(text, fd);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity
