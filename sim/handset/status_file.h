#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "sim/co_processor/co_processor.h"
#include "sim/handset/wake_locks.h"

namespace zvk {

// What the host has set by vendor commands.
struct ExtensionStatus {
  std::string channel_map;  // ten bytes in hexadecimal
  uint64_t sar_format = 0;  // 0: no caps
  std::string sar_caps;     // twelve bytes in hexadecimal, or none
  uint64_t ewp_interval = 0;
  std::map<std::string, std::string> ccc;  // numbers of events by address
};

// What the simulator tells of itself in ROOT/run/zvksim/status, as JSON.
struct Status {
  bool powered = false;
  uint64_t power_cycles = 0;  // times that it was switched on
  uint64_t starts = 0;        // of a firmware: by power-on and by Launch RAM
  bool patched = false;
  bool listening = false;  // false while off and while a new firmware warms up
  uint32_t speed_baud = 0;
  bool sleep_mode = false;
  bool lpm_enabled = false;
  bool awake = true;
  std::string address;
  ExtensionStatus extensions;
  std::optional<CoProcessor::State> co_processor;
  uint64_t bytes_from_host = 0;
  uint64_t bytes_to_host = 0;
  uint64_t bytes_lost_asleep = 0;
  uint64_t packets_from_host = 0;
  uint64_t packets_to_host = 0;
  uint64_t packets_dropped = 0;  // the host did not read
  uint64_t sync_losses = 0;
  uint64_t coex_acknowledged = 0;
  std::map<uint16_t, uint64_t> commands;  // by opcode
};

std::string StatusJson(const Status& status,
                       const std::map<std::string, WakeLocks::Account>& wake_locks);

// Replaces path by content at once: a reader sees the old or the new whole. Returns false when it
// cannot be written.
bool ReplaceFile(const std::string& path, const std::string& content);

}  // namespace zvk
