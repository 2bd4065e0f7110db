#include "tools/capture/capture_source.h"

#include <android-base/strings.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

// The service looks for packets every few milliseconds.
constexpr std::chrono::milliseconds kLastPackets{30};
constexpr std::chrono::seconds kEndOfAll{1};
constexpr std::chrono::milliseconds kPause{200};

}  // namespace

std::vector<std::string> CaptureWords::Words() const {
  std::vector<std::string> words;
  const auto add = [&](const char* name, const std::vector<std::string>& values) {
    if (!values.empty()) words.push_back(name + ::android::base::Join(values, ','));
  };
  if (bring_up) words.emplace_back("bring-up");
  add("types=", types);
  add("opcodes=", opcodes);
  add("events=", events);
  add("no-events=", no_events);
  add("handles=", handles);
  if (no_advertising) words.emplace_back("no-advertising");
  if (no_data) words.emplace_back("no-data");
  return words;
}

unique_fd OpenCapture(const ::android::sp<Hci>& service, const std::string& format,
                      const CaptureWords& words, std::chrono::milliseconds wait) {
  unique_fd source, target;
  if (!::android::base::Pipe(&source, &target, O_CLOEXEC)) throw Failure(WithErrno("pipe"));
  fcntl(source.get(), F_SETPIPE_SZ, 1 << 20);  // where the system allows it
  std::vector<std::string> options = words.Words();
  options.insert(options.begin(), {"capture", format});
  CallDebug(service, std::move(target), options, wait);
  return source;
}

void ForEachRecord(const unique_fd& source, TimePoint deadline,
                   const std::function<bool(const CaptureRecord&)>& take,
                   const std::function<void()>& pause) {
  wire::RecordSplitter splitter;
  std::array<uint8_t, 65536> buffer;
  bool begun = false;
  bool stopping = false;
  TimePoint end_of_all = kNever;
  const auto stop = [&] {
    stopping = true;
    end_of_all = Clock::now() + kEndOfAll;
  };
  while (Clock::now() < end_of_all) {
    TimePoint end = stopping ? Clock::now() + kLastPackets : deadline;
    if (pause != nullptr) end = std::min(end, Clock::now() + kPause);
    try {
      if (!WaitReadable(source.get(), end)) {
        if (stopping) return;
        if (pause != nullptr) pause();
        if (Clock::now() >= deadline) stop();
        continue;
      }
    } catch (const Interrupted&) {
      if (stopping) throw;
      ForgetStopSignal();
      stop();
      continue;
    }
    const ssize_t n = TEMP_FAILURE_RETRY(read(source.get(), buffer.data(), buffer.size()));
    if (n < 0) throw Failure(WithErrno("cannot read the capture"));
    if (n == 0) throw Failure(ExitCode::kNoService, "the service ended the capture");
    const wire::ByteView bytes(buffer.data(), static_cast<size_t>(n));
    if (!begun && !wire::RecordSplitter::IsCapture(bytes)) {
      throw Failure(::android::base::Trim(bytes.Text()));  // why there is none
    }
    begun = true;
    splitter.Put(bytes);
    while (const std::optional<CaptureRecord> record = splitter.Next()) {
      if (!take(*record)) return;
    }
  }
}

}  // namespace bthalctl
