// Where a capture is written.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace android::hardware::bluetooth::tap {

// Takes the records of a capture, on the capture's thread.
class CaptureSink {
 public:
  virtual ~CaptureSink() = default;

  // One record, in one piece where that is possible without waiting.
  virtual void Write(const std::vector<uint8_t>& record) = 0;
  // Waits until wake_fd is readable (-1: for nothing), the time is over (-1: never), or the sink is
  // gone.
  virtual void Wait(int wake_fd, int timeout_ms) = 0;
  // Nothing more is taken, for good.
  virtual bool gone() const = 0;
  // Begins a new file if it is time to. Returns whether it did.
  virtual bool Turn() { return false; }
};

// A pipe or a socket, until its reader closes it or takes nothing for a minute. The descriptor's
// flags stay as they are.
class ReaderSink final : public CaptureSink {
 public:
  explicit ReaderSink(base::unique_fd fd) : fd_(std::move(fd)) {}

  void Write(const std::vector<uint8_t>& record) override;
  void Wait(int wake_fd, int timeout_ms) override { Poll(wake_fd, 0, timeout_ms); }
  bool gone() const override { return gone_; }

 private:
  bool Poll(int wake_fd, short events, int timeout_ms);

  const base::unique_fd fd_;
  bool gone_ = false;
};

// Files below the root folder: PATH, PATH.1 and so on to PATH.(COUNT - 1), the oldest last, for the
// service's user and its group. What an earlier process left becomes older. Gone, with an error
// line, when a file cannot be written.
class FileSink final : public CaptureSink {
 public:
  // A file is followed by the next one once it has reached size bytes.
  FileSink(std::string path, uint64_t size, unsigned count);

  void Write(const std::vector<uint8_t>& record) override;
  void Wait(int wake_fd, int timeout_ms) override;
  bool gone() const override { return !file_.ok(); }
  bool Turn() override;

 private:
  void Open();

  const std::string path_;
  const uint64_t size_;
  const unsigned count_;
  base::unique_fd file_;
  uint64_t written_ = 0;
};

}  // namespace android::hardware::bluetooth::tap
