#include "scheduling.h"

#include <unistd.h>

#include "row.h"
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

std::string Name(Scheduling scheduling) {
  return scheduling == Scheduling::kRealTime ? "real-time" : "ordinary";
}

std::vector<Scheduling> PossibleKinds() {
  std::string output;
  if (test::Run(AtPriority(Scheduling::kRealTime, {"true"}), &output).exit_code == 0) {
    return {Scheduling::kOrdinary, Scheduling::kRealTime};
  }
  Say("no rows with real-time priority: this user may not have it");
  return {Scheduling::kOrdinary};
}

}  // namespace bench
