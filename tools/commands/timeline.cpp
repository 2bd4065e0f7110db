#include "tools/history/timeline.h"

#include <android-base/file.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/history/history_source.h"

namespace bthalctl {
namespace {

struct TimelineOptions : CommandValues {
  std::string output;
  std::string format = "perfetto";
  std::string read;    // a capture; empty: of the service
  double seconds = 0;  // 0: only the bring-up
};

void Timeline(const Options& options, const TimelineOptions& timeline) {
  if (timeline.json == !timeline.output.empty()) {
    throw Failure(ExitCode::kUsage, "timeline takes -o FILE, or --json");
  }
  const History history = timeline.read.empty() ? RecordHistory(options, timeline.seconds)
                                                : HistoryOfCapture(timeline.read);
  if (timeline.json) {
    std::puts(
        ToJson(history).dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return;
  }
  const std::string trace =
      timeline.format == "json" ? ChromeTrace(history) : PerfettoTrace(history);
  if (timeline.output == "-") {
    std::fwrite(trace.data(), 1, trace.size(), stdout);
    return;
  }
  if (!::android::base::WriteStringToFile(trace, timeline.output)) {
    throw Failure(WithErrno("cannot write " + timeline.output));
  }
  std::printf("%s: %s, %zu steps, %zu commands, %zu packets\n", timeline.output.c_str(),
              HumanBytes(trace.size()).c_str(), history.steps.size(), history.commands.size(),
              history.packets.size());
}

}  // namespace

void AddTimeline(CLI::App& app, const Options& options) {
  auto [command, timeline] =
      AddCommand(app, options, Timeline, "timeline",
                 "write a timeline of the last bring-up and of what passes now",
                 "print what the timeline shows, for a script");
  command.add_option("-o,--output", timeline.output, "file to write; - is standard output")
      ->type_name("FILE");
  command.add_option("-r,--read", timeline.read,
                     "a capture (pcapng, btsnoop) instead of a service");
  command.add_option("-f,--format", timeline.format, "perfetto, or json for other viewers")
      ->capture_default_str()
      ->check(CLI::IsMember({"perfetto", "json"}));
  AddSeconds(command, "-t,--seconds", timeline.seconds, "go on for so many seconds", 0, 3600);
  command.footer(
      "Shows the steps of the bring-up, commands and their answers, packets, low power, wake\n"
      "lock, coexistence, the extensions, and counters. No payload of data packets and no address\n"
      "of a peer is in it. The file is for the Perfetto viewer.\n"
      "Examples:\n"
      "  bthalctl timeline -o bring-up.pftrace\n"
      "  bthalctl timeline -o radio.pftrace --seconds 10");
}

}  // namespace bthalctl
