#define LOG_TAG "bthal.capture"

#include "tap/capture_sink.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <limits.h>
#include <log/log.h>
#include <poll.h>
#include <root_folder/root_folder.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace android::hardware::bluetooth::tap {
namespace {

constexpr int kReaderTimeMs = 60'000;

}  // namespace

void ReaderSink::Write(const std::vector<uint8_t>& record) {
  const uint8_t* data = record.data();
  size_t left = record.size();
  while (left > 0 && !gone_) {
    if (!Poll(-1, POLLOUT, kReaderTimeMs)) {
      ALOGW("the reader of a capture takes nothing, the capture ends");
      gone_ = true;
    }
    if (gone_) return;
    ssize_t n = send(fd_.get(), data, left, MSG_DONTWAIT | MSG_NOSIGNAL);
    // So much a pipe that has room takes without waiting.
    if (n < 0 && errno == ENOTSOCK) n = write(fd_.get(), data, std::min<size_t>(left, PIPE_BUF));
    if (n > 0) {
      data += n;
      left -= static_cast<size_t>(n);
    } else if (errno != EINTR && errno != EAGAIN) {
      gone_ = true;
    }
  }
}

bool ReaderSink::Poll(int wake_fd, short events, int timeout_ms) {
  pollfd fds[] = {{fd_.get(), events, 0}, {wake_fd, POLLIN, 0}};
  const auto ready = TEMP_FAILURE_RETRY(poll(fds, 2, timeout_ms));
  gone_ = gone_ || ready < 0 || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  return ready != 0;
}

FileSink::FileSink(std::string path, uint64_t size, unsigned count)
    : path_(std::move(path)), size_(size), count_(count) {
  Open();
}

void FileSink::Open() {
  const auto name = [this](unsigned age) {
    return root_folder::Resolve(age == 0 ? path_ : path_ + "." + std::to_string(age));
  };
  for (unsigned age = count_ - 1; age > 0; --age) {
    rename(name(age - 1).c_str(), name(age).c_str());
  }
  mkdir(root_folder::Resolve(base::Dirname(path_)).c_str(), 0750);
  file_.reset(root_folder::Open(path_, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0640));
  if (!file_.ok()) ALOGE("cannot write %s: %s", path_.c_str(), strerror(errno));
  written_ = 0;
}

void FileSink::Write(const std::vector<uint8_t>& record) {
  if (!file_.ok()) return;
  if (!base::WriteFully(file_, record.data(), record.size())) {
    ALOGE("cannot write %s: %s, the capture ends", path_.c_str(), strerror(errno));
    file_.reset();
  }
  written_ += record.size();
}

void FileSink::Wait(int wake_fd, int timeout_ms) {
  pollfd wake{wake_fd, POLLIN, 0};
  TEMP_FAILURE_RETRY(poll(&wake, 1, timeout_ms));
}

bool FileSink::Turn() {
  if (!file_.ok() || written_ < size_) return false;
  Open();
  return true;
}

}  // namespace android::hardware::bluetooth::tap
