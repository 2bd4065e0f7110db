#include "scheduling.h"

#include <unistd.h>

#include "tests/support/child_process.h"

namespace bench {
namespace {

std::vector<std::string> Joined(std::vector<std::string> words,
                                const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

}  // namespace

std::vector<std::string> WithRights(Scheduling scheduling, std::vector<std::string> command) {
  if (scheduling == Scheduling::kRealTime) return command;
  if (geteuid() == 0) command = Joined({"setpriv", "--bounding-set=-sys_nice"}, command);
  return Joined({"prlimit", "--rtprio=0"}, command);
}

std::vector<std::string> AtPriority(Scheduling scheduling, std::vector<std::string> command) {
  if (scheduling == Scheduling::kOrdinary) return command;
  return Joined({"chrt", "--fifo", "1"}, command);
}

bool MayBeRealTime() {
  std::string output;
  return test::Run(AtPriority(Scheduling::kRealTime, {"true"}), &output).exit_code == 0;
}

}  // namespace bench
