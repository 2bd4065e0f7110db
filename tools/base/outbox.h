#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace bthalctl {

// What one reader of a link has still to be given. Nobody waits for a reader: what its descriptor
// does not take now is kept, up to a limit. One thread.
class Outbox {
 public:
  // limit: bytes that a reader may be behind; one that lives never is.
  explicit Outbox(size_t limit) : limit_(limit) {}

  // Writes to fd, a non-blocking stream, or a socket of packets, where each message is one. Null
  // while the reader keeps up, else why to drop it: after that nothing more is written.
  const char* Put(int fd, std::vector<uint8_t> message);
  const char* Flush(int fd);
  // Whether Flush() is to be called when fd takes more.
  bool waiting() const { return !messages_.empty(); }

 private:
  size_t limit_;
  std::deque<std::vector<uint8_t>> messages_;
  size_t bytes_ = 0;    // in messages_, less written_
  size_t written_ = 0;  // of the first one
};

}  // namespace bthalctl
