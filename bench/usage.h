// What processes use, as the kernel counts it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Processor time so far of all threads that processes have now.
double CpuSeconds(const std::vector<pid_t>& pids);
// How often the threads that a process has now have gone to sleep by themselves so far.
double Sleeps(pid_t pid);
// field: of /proc/PID/status, such as "VmRSS" or "RssAnon".
double Kilobytes(pid_t pid, const std::string& field);

}  // namespace bench
