#define LOG_TAG "bthal.capture"

#include "tap/capture.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <limits.h>
#include <log/log.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "tap/capture_format.h"
#include "tap/tap.h"

namespace android::hardware::bluetooth::tap {
namespace {

// Between two looks into the ring while packets pass: the threads that add them need not wake the
// capture's each time.
constexpr int kPacketsPauseMs = 5;
constexpr int kReaderTimeMs = 60'000;
// A step of the system's clock that a capture tells.
constexpr int64_t kClockStepNs = 500'000'000;

// The reader of a capture: a pipe or a socket, which is never waited for without an end.
class CaptureReader {
 public:
  explicit CaptureReader(base::unique_fd fd) : fd_(std::move(fd)) {}

  bool gone() const { return gone_; }

  // One record, in one write where a pipe takes that without waiting.
  void Write(const std::vector<uint8_t>& record) {
    const uint8_t* data = record.data();
    size_t left = record.size();
    while (left > 0 && !gone_) {
      if (!Wait(-1, POLLOUT, kReaderTimeMs)) {
        if (!gone_) ALOGW("the reader of a capture takes nothing, the capture ends");
        gone_ = true;
        return;
      }
      if (gone_) return;
      // What a pipe that has room takes at once.
      ssize_t n = send(fd_.get(), data, left, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno == ENOTSOCK) n = write(fd_.get(), data, std::min<size_t>(left, PIPE_BUF));
      if (n > 0) {
        data += n;
        left -= static_cast<size_t>(n);
      } else if (errno != EINTR && errno != EAGAIN) {
        gone_ = true;
      }
    }
  }

  // Waits for the reader (events: POLLOUT, or 0 for its end only) or for wake_fd. Returns whether
  // there is something.
  bool Wait(int wake_fd, short events, int timeout_ms) {
    pollfd fds[] = {{fd_.get(), events, 0}, {wake_fd, POLLIN, 0}};
    const auto ready = TEMP_FAILURE_RETRY(poll(fds, 2, timeout_ms));
    gone_ = gone_ || ready < 0 || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    return ready > 0;
  }

 private:
  const base::unique_fd fd_;
  bool gone_ = false;
};

// One capture, on its own thread.
class Capture {
 public:
  // The times: when source was opened, or before.
  Capture(base::unique_fd fd, CaptureRequest request, std::unique_ptr<TapReader> source,
          int64_t wall_ns, int64_t monotonic_ns)
      : opened_wall_ns_(wall_ns),
        opened_monotonic_ns_(monotonic_ns),
        reader_(std::move(fd)),
        filter_(std::move(request.filter)),
        source_(std::move(source)),
        format_(CaptureFormat::Make(request.format, [this](const std::vector<uint8_t>& record) {
          reader_.Write(record);
        })) {}

  void Run() {
    Entries entries;
    uint64_t lost = 0;
    while (!reader_.gone()) {
      if (source_->Take(&entries, &lost)) {
        lost_ += lost;
        for (size_t at = 0; at < entries.size() && !reader_.gone();) {
          EntryHeader header;
          const uint8_t* const bytes = NextEntry(entries, &at, &header);
          Show(header, bytes);
        }
        reader_.Wait(-1, 0, kPacketsPauseMs);
      } else {
        Begin(opened_wall_ns_, opened_monotonic_ns_);  // the reader sees that all is well
        if (!source_->Arm()) reader_.Wait(source_->wake_fd(), 0, -1);
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
  CaptureReader reader_;
  const CaptureFilter filter_;
  const std::unique_ptr<TapReader> source_;
  const std::unique_ptr<CaptureFormat> format_;
  std::vector<uint8_t> blank_;
  bool begun_ = false;
  int64_t wall_offset_ns_ = 0;   // of this capture: between its times and the monotonic clock
  int64_t clock_offset_ns_ = 0;  // as the system's clock has it
  uint64_t lost_ = 0;            // packets lost since the last one shown
};

}  // namespace

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
  const int64_t wall_ns = ReadClockNs(CLOCK_REALTIME);
  const int64_t monotonic_ns = ReadClockNs(CLOCK_MONOTONIC);
  std::unique_ptr<TapReader> source = Tap::Get().Open(request.with_bring_up);
  if (source == nullptr) {
    return std::to_string(Tap::kMaxReaders) + " captures are running, which is as many as may be";
  }
  auto capture = std::make_unique<Capture>(std::move(own), std::move(request), std::move(source),
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

}  // namespace android::hardware::bluetooth::tap
