#include "support/wait.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace test {

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  // Longer and longer, so that many that wait for long leave the machine to what they wait for.
  std::chrono::milliseconds pause(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return condition();
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, std::chrono::milliseconds(16));
  }
  return true;
}

bool IsAsleep(pid_t thread) {
  const std::string stat = ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat");
  const size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && stat.substr(name_end + 2, 1) == "S";
}

int Count(const char* what, int full) {
#ifdef BTHAL_SANITIZED
  const int usual = full / 10;
#else
  const int usual = full;
#endif
  const char* scale = getenv("BTHAL_TEST_SCALE");
  const int count = scale == nullptr ? usual : usual * std::stoi(scale);
  printf("count: %d %s\n", count, what);
  return count;
}

}  // namespace test
