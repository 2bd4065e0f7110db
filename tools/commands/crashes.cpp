#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/evidence/crash_list.h"

namespace bthalctl {
namespace {

void Crashes(const Options& /*options*/, const CommandValues& values) {
  const nlohmann::json crashes = CollectCrashes();
  if (values.json) {
    // A file may hold anything: what is no UTF-8 is replaced.
    std::puts(crashes.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  } else {
    std::fputs(crashes.empty() ? "no crashes\n" : DescribeCrashes(crashes).c_str(), stdout);
  }
}

}  // namespace

void AddCrashes(CLI::App& app, const Options& options) {
  AddCommand(app, options, Crashes, "crashes", "list crash files and backtraces, oldest first",
             "for a script; times in seconds since 1970")
      .command.footer(
          "A failure on purpose leaves a crash-information file with its reason, a core dump of "
          "the\n"
          "same timestamp (what the service did last), and a backtrace (tombstone) whose function\n"
          "is named after the fault; the controller's own dumps lie beside the core dump. Reads\n"
          "files below the root folder: no service is needed.");
}

}  // namespace bthalctl
