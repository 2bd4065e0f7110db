#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bthalctl {

// The activity section of a debug report, read into its four tables.
struct ActivityReport {
  struct Device {
    uint16_t handle = 0;
    std::string address;
    std::string since;  // time of day, HH:MM:SS:mmm
  };
  // A time in which something went on, and how much of it.
  struct Period {
    std::string start;
    std::string end;
    uint16_t handle = 0;  // ACL only
    uint32_t milliseconds = 0;
    uint32_t count = 0;  // packets sent, packets received, advertising reports
  };
  std::vector<Device> devices;
  std::vector<Period> wake_locks;
  std::vector<Period> acl;
  std::vector<Period> advertising;
};

// Throws Failure that names the line that does not belong there.
ActivityReport ParseActivityReport(const std::string& section);

}  // namespace bthalctl
