#include "usage.h"

#include <filesystem>
#include <fstream>

namespace bench {
namespace {

// The number behind "name:" in a file; 0 when it is not there.
double NumberIn(const std::string& file, const std::string& name) {
  std::ifstream in(file);
  for (std::string word; in >> word;) {
    double number = 0;
    if (word == name + ":" && in >> number) return number;
  }
  return 0;
}

std::filesystem::directory_iterator Threads(pid_t pid) {
  return std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task");
}

}  // namespace

double CpuSeconds(const std::vector<pid_t>& pids) {
  double nanoseconds = 0;
  for (const pid_t pid : pids) {
    for (const auto& thread : Threads(pid)) {
      double run = 0;
      std::ifstream(thread.path() / "schedstat") >> run;
      nanoseconds += run;
    }
  }
  return nanoseconds * 1e-9;
}

double Sleeps(pid_t pid) {
  double sleeps = 0;
  for (const auto& thread : Threads(pid)) {
    sleeps += NumberIn(thread.path() / "status", "voluntary_ctxt_switches");
  }
  return sleeps;
}

double Kilobytes(pid_t pid, const std::string& field) {
  return NumberIn("/proc/" + std::to_string(pid) + "/status", field);
}

}  // namespace bench
