#include "tools/base/outbox.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace bthalctl {

const char* Outbox::Put(int fd, std::vector<uint8_t> message) {
  bytes_ += message.size();
  if (bytes_ > limit_) return "it does not read";
  messages_.push_back(std::move(message));
  return messages_.size() > 1 ? nullptr : Flush(fd);
}

const char* Outbox::Flush(int fd) {
  while (!messages_.empty()) {
    const uint8_t* const data = messages_.front().data() + written_;
    const size_t left = messages_.front().size() - written_;
    ssize_t size = send(fd, data, left, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size < 0 && errno == ENOTSOCK) size = write(fd, data, left);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == EAGAIN) return nullptr;
    if (size < 0) return "it left";
    bytes_ -= static_cast<size_t>(size);
    written_ += static_cast<size_t>(size);
    if (written_ < messages_.front().size()) continue;
    messages_.pop_front();
    written_ = 0;
  }
  return nullptr;
}

}  // namespace bthalctl
