#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/evidence/crash_list.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

Json ToJson(const Crash& crash) {
  Json out = {{"time", std::chrono::system_clock::to_time_t(crash.time)}};
  if (crash.info) {
    out["reason"] = crash.info->reason;
    out["count"] = crash.info->count;
  } else if (crash.tombstone) {
    const Tombstone& tombstone = *crash.tombstone;
    out["signal"] = tombstone.signal;
    out["function"] = tombstone.function;
    out["pid"] = tombstone.pid;
    out["tid"] = tombstone.tid;
    out["thread"] = tombstone.thread;
    out["message"] = tombstone.message;
    out["frames"] = tombstone.frames;
  } else {
    out["mistake"] = crash.mistake;
  }
  for (const Crash::File& file : crash.files) {
    out["files"].push_back({{"path", file.path}, {"bytes", file.bytes}});
  }
  return out;
}

void Crashes(bool as_json) {
  const std::vector<Crash> crashes = CollectCrashes();
  if (as_json) {
    Json out = Json::array();
    for (const Crash& crash : crashes) out.push_back(ToJson(crash));
    // A file may hold anything: what is no UTF-8 is replaced.
    std::puts(out.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  if (crashes.empty()) std::puts("no crashes");
  for (const Crash& crash : crashes) std::fputs(Describe(crash).c_str(), stdout);
}

}  // namespace

void AddCrashes(CLI::App& app) {
  auto as_json = std::make_shared<bool>(false);
  CLI::App* command =
      app.add_subcommand("crashes", "list crash files and backtraces, oldest first");
  command->add_flag("--json", *as_json, "for a script; times in seconds since 1970");
  command->footer(
      "A failure on purpose leaves a crash-information file with its reason, a core dump of the\n"
      "same timestamp (what the service did last), and a backtrace (tombstone) whose function is\n"
      "named after the fault; the controller's own dumps lie beside the core dump. Reads files\n"
      "below the root folder: no service is needed.");
  command->callback([as_json] { Crashes(*as_json); });
}

}  // namespace bthalctl
