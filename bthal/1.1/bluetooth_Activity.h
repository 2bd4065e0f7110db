#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/timer.h"

namespace android::hardware::bluetooth::hci {
class HciEventWatcher;
class HciFlowControl;
}  // namespace android::hardware::bluetooth::hci

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity {

// Local time, HH:MM:SS:mmm; all timestamps below have this form.
std::string log_message_timestamp();

struct tCONN_DEVICE {
  uint16_t handle = 0;
  std::string address;  // most significant byte first
  std::string timestamp;
};

struct ble_adv_activities_t {
  std::string start;
  std::string end;
  uint32_t duration_ms = 0;
  uint32_t reports = 0;
};

struct acl_data_activities_t {
  std::string start;
  std::string end;
  uint16_t handle = 0;
  uint32_t duration_ms = 0;
  uint32_t packets = 0;
};

// One awake period of the controller.
struct bthal_wakelock_stat_t {
  std::string wake_time;
  std::string sleep_time;
  uint32_t duration_ms = 0;
  uint32_t transmissions = 0;
};

// Remembers what kept the radio and the host busy: connected devices, bursts of advertising reports
// and of received ACL data that lasted longer than 5 s, and long awake periods; 512 of each, the
// oldest are dropped first. It sees the packets that pass the HAL while Bluetooth is on, and keeps
// what it remembers when Bluetooth goes off. Built on first use, never destroyed. Any thread.
class BtActivitiesLogger {
 public:
  static BtActivitiesLogger* GetInstacne();

  void OnBluetoothEnabled(hci::HciFlowControl* flow) EXCLUDES(lock_);
  void OnBluetoothDisabled() EXCLUDES(lock_);

  // A command of the stack, or an event or ACL data of the controller; others are ignored.
  void LogActivities(uint8_t packet_type, const hidl_vec<uint8_t>& packet) EXCLUDES(lock_);

  void UpdateLeAdvStat(const ble_adv_activities_t& stat) EXCLUDES(lock_);
  void UpdateAclDataStat(const acl_data_activities_t& stat) EXCLUDES(lock_);
  void UpdateBthalWakelockStat(const bthal_wakelock_stat_t& stat) EXCLUDES(lock_);

  // The report, in one write.
  void DumpBtActivitiesStatistics(int fd) EXCLUDES(lock_);

 private:
  // Packets that come less than the timer's time apart.
  struct Burst {
    explicit Burst(const char* name) : timer_name(name) {}

    const char* const timer_name;
    bool active = false;
    std::chrono::steady_clock::time_point start_time;
    std::string start;
    uint32_t count = 0;
    uint16_t handle = 0;  // of the first packet
    std::unique_ptr<Timer> timer;
  };
  BtActivitiesLogger() = default;

  void CountPacket(Burst& burst, uint16_t handle) REQUIRES(lock_);
  // Ends an active burst. Returns it if it lasted long enough to be remembered.
  std::optional<acl_data_activities_t> EndBurst(Burst& burst) REQUIRES(lock_);
  void LeAdvTimeout() EXCLUDES(lock_);
  void AclDataTimeout() EXCLUDES(lock_);
  void LogEvent(const hidl_vec<uint8_t>& event) REQUIRES(lock_);
  void LogCommand(const hidl_vec<uint8_t>& command) REQUIRES(lock_);
  void StoreDevice(uint16_t handle, const std::string& address) REQUIRES(lock_);
  bool OnConnection(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  bool OnDisconnection(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);

  std::mutex lock_;
  std::vector<std::unique_ptr<hci::HciEventWatcher>> watchers_ GUARDED_BY(lock_);
  std::list<ble_adv_activities_t> le_adv_history_ GUARDED_BY(lock_);  // oldest first, as all
  std::list<acl_data_activities_t> acl_data_history_ GUARDED_BY(lock_);
  std::map<uint16_t, tCONN_DEVICE> devices_ GUARDED_BY(lock_);  // by handle
  std::list<bthal_wakelock_stat_t> wakelock_history_ GUARDED_BY(lock_);
  Burst le_adv_ GUARDED_BY(lock_){"le_adv_timer"};
  Burst acl_data_ GUARDED_BY(lock_){"acl_data_timer"};
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity
