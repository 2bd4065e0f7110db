#define LOG_TAG "bthal.capture"

#include "tap/capture.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <log/log.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "base/clock.h"
#include "tap/capture_format.h"
#include "tap/capture_sink.h"
#include "tap/tap.h"

namespace android::hardware::bluetooth::tap {
namespace {

// Between two looks into the ring while packets pass: the threads that add them need not wake the
// capture's each time.
constexpr int kPacketsPauseMs = 5;
// A step of the system's clock that a capture tells.
constexpr int64_t kClockStepNs = 500'000'000;

// One capture, on its own thread.
class Capture {
 public:
  // The times: when source was opened, or before.
  Capture(std::unique_ptr<CaptureSink> sink, CaptureRequest request,
          std::unique_ptr<TapReader> source, int64_t wall_ns, int64_t monotonic_ns)
      : opened_wall_ns_(wall_ns),
        opened_monotonic_ns_(monotonic_ns),
        sink_(std::move(sink)),
        filter_(std::move(request.filter)),
        source_(std::move(source)),
        format_(CaptureFormat::Make(
            request.format, [this](const std::vector<uint8_t>& record) { sink_->Write(record); })) {
  }

  void Run() {
    Entries entries;
    uint64_t lost = 0;
    while (!sink_->gone()) {
      if (source_->Take(&entries, &lost)) {
        lost_ += lost;
        for (size_t at = 0; at < entries.size() && !sink_->gone();) {
          EntryHeader header;
          const uint8_t* const bytes = NextEntry(entries, &at, &header);
          Show(header, bytes);
        }
        sink_->Wait(-1, kPacketsPauseMs);
      } else {
        Begin(opened_wall_ns_, opened_monotonic_ns_);  // the reader sees that all is well
        if (!source_->Arm()) sink_->Wait(source_->wake_fd(), -1);
      }
    }
  }

 private:
  // The times of a capture follow the monotonic clock from its first entry on: they rise, also when
  // somebody sets the system's clock.
  void Begin(int64_t wall_ns, int64_t monotonic_ns) {
    if (std::exchange(begun_, true)) return;
    wall_offset_ns_ = wall_ns - monotonic_ns;
    clock_offset_ns_ = wall_offset_ns_;
    format_->Begin(wall_ns);
  }

  void Show(const EntryHeader& header, const uint8_t* bytes) {
    Begin(header.wall_ns, header.monotonic_ns);
    const int64_t time_ns = header.monotonic_ns + wall_offset_ns_;
    if (sink_->Turn()) format_->Begin(time_ns);
    const int64_t offset_ns = header.wall_ns - header.monotonic_ns;
    if (std::llabs(offset_ns - clock_offset_ns_) > kClockStepNs) {
      format_->AddNote(time_ns, "the system's clock was set by " +
                                    std::to_string((offset_ns - clock_offset_ns_) / 1'000'000) +
                                    " ms; times in this capture go on without that step");
      clock_offset_ns_ = offset_ns;
    }
    if (header.type == kNote) {
      format_->AddNote(time_ns, NoteText(header, bytes));
      return;
    }
    if (!filter_.Passes(header.type, bytes, header.size)) return;
    CapturedPacket packet;
    packet.type = header.type;
    packet.from_controller = header.from_controller;
    packet.time_ns = time_ns;
    packet.lost_before = std::exchange(lost_, 0);
    packet.data = filter_.hides_data() ? WithoutPayload(header, bytes) : bytes;
    packet.size = header.size;
    format_->AddPacket(packet);
  }

  // One line of plain characters.
  static std::string NoteText(const EntryHeader& header, const uint8_t* bytes) {
    std::string text(bytes, bytes + header.size);
    for (char& c : text) {
      if (c < ' ' || c > '~') c = ' ';
    }
    if (header.level != 'I') text = std::string(1, header.level) + " " + text;
    return text;
  }

  const uint8_t* WithoutPayload(const EntryHeader& header, const uint8_t* bytes) {
    blank_.assign(bytes, bytes + header.size);
    HidePayload(header.type, &blank_);
    return blank_.data();
  }

  const int64_t opened_wall_ns_;
  const int64_t opened_monotonic_ns_;
  const std::unique_ptr<CaptureSink> sink_;
  const CaptureFilter filter_;
  const std::unique_ptr<TapReader> source_;
  const std::unique_ptr<CaptureFormat> format_;
  std::vector<uint8_t> blank_;
  bool begun_ = false;
  int64_t wall_offset_ns_ = 0;   // of this capture: between its times and the monotonic clock
  int64_t clock_offset_ns_ = 0;  // as the system's clock has it
  uint64_t lost_ = 0;            // packets lost since the last one shown
};

// Returns an empty text, or why there is no capture.
std::string Start(std::unique_ptr<CaptureSink> sink, CaptureRequest request) {
  const int64_t wall_ns = ReadClockNs(CLOCK_REALTIME);
  const int64_t monotonic_ns = ReadClockNs(CLOCK_MONOTONIC);
  std::unique_ptr<TapReader> source = Tap::Get().Open(request.with_bring_up);
  if (source == nullptr) {
    return std::to_string(Tap::kMaxReaders) + " captures are running, which is as many as may be";
  }
  auto capture = std::make_unique<Capture>(std::move(sink), std::move(request), std::move(source),
                                           wall_ns, monotonic_ns);
  try {
    std::thread([capture = std::move(capture)] {
      pthread_setname_np(pthread_self(), "bthal_capture");
      sigset_t broken_pipe;
      sigemptyset(&broken_pipe);
      sigaddset(&broken_pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
      capture->Run();
      ALOGI("a capture has ended");
    }).detach();
  } catch (const std::system_error&) {
    return "no thread is left";
  }
  ALOGI("a capture has begun");
  return "";
}

constexpr uint64_t kLeastFileSize = 64 << 10;
constexpr char kCaptureFolder[] = "/data/vendor/bluetooth/capture.";

}  // namespace

const char kCaptureProperty[] = "persist.bluetooth.capture";

const char kCaptureHelp[] =
    "usage: capture pcapng|btsnoop|monitor [bring-up] [types=cmd,acl,sco,evt,iso] "
    "[opcodes=0x0c03,…] "
    "[events=0x3e,…] [no-events=0x13,…] [handles=0x0040,…] [no-advertising] [no-data]";

bool ParseCaptureRequest(const std::vector<std::string>& words, CaptureRequest* request) {
  if (words.empty() || CaptureFormat::Make(words[0], nullptr) == nullptr) return false;
  request->format = words[0];
  return std::all_of(words.begin() + 1, words.end(), [request](const std::string& word) {
    if (word == "bring-up") return request->with_bring_up = true;
    return request->filter.Add(word);
  });
}

std::string StartCapture(int fd, CaptureRequest request) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))) {
    return "a capture needs a pipe or a socket, whose reader can end it";
  }
  base::unique_fd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  if (!own.ok()) return "no descriptor is left";
  return Start(std::make_unique<ReaderSink>(std::move(own)), std::move(request));
}

void StartCaptureOnDisk(const std::string& setting) {
  const std::vector<std::string> parts = base::Split(setting, ":");
  CaptureRequest request;
  uint64_t size = 0;
  unsigned count = 0;
  if (parts.size() != 3 || !ParseCaptureRequest({parts[0]}, &request) ||
      !base::ParseByteCount(parts[1], &size) || !base::ParseUint(parts[2], &count, 1000u) ||
      size < kLeastFileSize || count == 0) {
    ALOGE("%s: \"%s\" is not FORMAT:SIZE:COUNT, for instance pcapng:10m:5", kCaptureProperty,
          setting.c_str());
    return;
  }
  const std::string path = kCaptureFolder + parts[0];
  const std::string trouble =
      Start(std::make_unique<FileSink>(path, size, count), std::move(request));
  if (!trouble.empty()) ALOGE("%s: %s", path.c_str(), trouble.c_str());
}

}  // namespace android::hardware::bluetooth::tap
