#include "tools/history/timeline.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/capture/capture_reader.h"
#include "tools/capture/capture_source.h"
#include "tools/commands/commands.h"
#include "tools/history/history_recorder.h"

namespace bthalctl {
namespace {

struct TimelineOptions : CommandValues {
  std::string output;
  std::string format = "perfetto";
  double seconds = 0;  // 0: only the bring-up
};

std::vector<LogLine> ReadLog() {
  std::vector<LogLine> lines;
  std::string log;
  // A service that logs elsewhere leaves no file.
  ::android::base::ReadFileToString(root_folder::Resolve("/run/bthal/log"), &log);
  for (const std::string& text : ::android::base::Split(log, "\n")) {
    if (const std::optional<LogLine> line = ParseLogLine(text)) lines.push_back(*line);
  }
  return lines;
}

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The last bring-up, and what passes from now on for so many seconds.
History Record(const Options& options, double seconds) {
  CatchStopSignals();
  CaptureWords words;
  words.bring_up = true;
  words.no_data = true;
  const auto source = OpenCapture(FindService(options.wait()), "monitor", words);
  CaptureReader reader;
  HistoryRecorder recorder;
  ForEachRecord(source, EndAfter(std::max(seconds, 0.05)), [&](const CaptureRecord& record) {
    reader.Put(record.bytes);
    while (const std::optional<Captured> captured = reader.Next()) recorder.AddCaptured(*captured);
    return true;
  });
  recorder.AddLog(ReadLog());
  History history = recorder.Finish(NowNs());
  history.source = root_folder::Path().empty() ? "/" : root_folder::Path();
  return history;
}

void Timeline(const Options& options, const TimelineOptions& timeline) {
  if (timeline.json == !timeline.output.empty()) {
    throw Failure(ExitCode::kUsage, "timeline takes -o FILE, or --json");
  }
  const History history = Record(options, timeline.seconds);
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
