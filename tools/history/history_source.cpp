#include "tools/history/history_source.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "tools/base/failure.h"
#include "tools/capture/capture_source.h"
#include "tools/history/history_recorder.h"
#include "tools/link/attachment.h"
#include "tools/wire/capture_reader.h"

namespace bthalctl {
namespace {

// So long until what the service has kept has come.
constexpr double kKeptPackets = 0.05;

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// What "persist.bluetooth.capture" has kept, the oldest file first; the newest 64 MiB.
std::vector<std::string> CapturesOnDisk() {
  constexpr uintmax_t kMost = 64 << 20;
  std::vector<std::string> paths;
  uintmax_t size = 0;
  for (const char* const format : {"pcapng", "btsnoop", "monitor"}) {
    const std::string newest =
        root_folder::Resolve(std::string("/data/vendor/bluetooth/capture.") + format);
    std::error_code error;
    for (int age = 0; size < kMost; ++age) {
      const std::string path = age == 0 ? newest : newest + "." + std::to_string(age);
      const uintmax_t bytes = std::filesystem::file_size(path, error);
      if (error) break;
      size += bytes;
      paths.push_back(path);
    }
    if (!paths.empty()) break;
  }
  std::reverse(paths.begin(), paths.end());
  return paths;
}

std::string SourceName() { return root_folder::Path().empty() ? "/" : root_folder::Path(); }

}  // namespace

std::vector<LogLine> ReadServiceLog() {
  std::vector<LogLine> lines;
  for (const char* const path : {"/run/bthal/log.1", "/run/bthal/log"}) {
    std::string log;
    ::android::base::ReadFileToString(root_folder::Resolve(path), &log);
    for (const std::string& text : ::android::base::Split(log, "\n")) {
      if (const std::optional<LogLine> line = ParseLogLine(text)) lines.push_back(*line);
    }
  }
  return lines;
}

History RecordHistory(const Options& options, double seconds) {
  CatchStopSignals();
  CaptureWords words;
  words.bring_up = true;
  words.no_data = true;
  const auto service = FindService(options.wait());
  const auto source = OpenCapture(service, "monitor", words, kAnswerTime);
  wire::CaptureReader reader;
  HistoryRecorder recorder;
  ForEachRecord(source, EndAfter(std::max(seconds, kKeptPackets)),
                [&](const CaptureRecord& record) {
                  reader.Put(record.bytes);
                  while (const std::optional<wire::Captured> captured = reader.Next()) {
                    recorder.AddCaptured(*captured);
                  }
                  return true;
                });
  try {
    recorder.AddSteps(TakeState(options, kAnswerTime));
  } catch (const Failure&) {
    // It brings the controller up again, or has just died: its log tells the steps.
  }
  recorder.AddLog(ReadServiceLog());
  History history = recorder.Finish(NowNs());
  history.source = SourceName();
  return history;
}

History HistoryOfFiles(const std::vector<LogLine>& log) {
  HistoryRecorder recorder;
  const int64_t begin_ns = LastBringUpNs(log);
  for (const std::string& path : CapturesOnDisk()) {
    try {
      wire::ForEachCaptured(path, [&](const wire::Captured& captured) {
        if (captured.time_ns >= begin_ns) recorder.AddCaptured(captured);
        return true;
      });
    } catch (const std::runtime_error& error) {
      recorder.AddLoss(std::filesystem::path(path).filename().string() +
                       ", the capture on disk, can be read up to here only: " + error.what());
    }
  }
  recorder.AddLog(log);
  int64_t end_ns = recorder.last_ns();
  if (!log.empty()) {
    end_ns = std::max<int64_t>(end_ns, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           log.back().time.time_since_epoch())
                                           .count());
  }
  History history = recorder.Finish(end_ns);
  history.source = SourceName();
  return history;
}

History HistoryOfCapture(const std::string& path) {
  HistoryRecorder recorder;
  int64_t end_ns = 0;
  wire::ForEachCaptured(path, [&](const wire::Captured& captured) {
    recorder.AddCaptured(captured);
    end_ns = captured.time_ns;
    return true;
  });
  History history = recorder.Finish(end_ns);
  history.source = path;
  return history;
}

}  // namespace bthalctl
