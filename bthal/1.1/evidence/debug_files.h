#pragma once

#include <string>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

inline constexpr char kRule[] = "=============================================";

inline constexpr char kDumpDirectory[] = "/data/vendor/ssrdump/";
inline constexpr char kCoreDumpDirectory[] = "/data/vendor/ssrdump/coredump/";
inline constexpr char kCrashInfoPrefix[] = "crashinfo_bt_";
inline constexpr char kCoreDumpPrefix[] = "coredump_bt_";
inline constexpr char kControllerDumpPrefix[] = "coredump_bt_socdump_";
inline constexpr char kChreDumpPrefix[] = "coredump_bt_chredump_";
// Relative on purpose: it lies below the service's working directory, the root.
inline constexpr char kLpmLogBuffer[] = "dev/logbuffer_btlpm";

// Remembers the kernel log buffer that belongs to a UART: its path up to the first digit is
// replaced by "/dev/logbuffer_tty". Any thread.
void SetBtUartDebugPort(const std::string& uart_port);
// Its path; empty until it is known.
std::string UartDebugPort();

// Appends the content of a kernel log buffer under a heading, or why it cannot be read.
void dump_debugfs_to_fd(int fd, const std::string& path);

// Appends every file of dir (with a slash at its end) whose name begins with prefix; controller
// and co-processor dumps as hexadecimal.
void collect_sscd_logs(int fd, const std::string& prefix, const std::string& dir);

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
