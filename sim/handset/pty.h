#pragma once

#include <android-base/unique_fd.h>

#include <string>

#include "sim/wire.h"

namespace zvk {

// A pseudo-terminal that stands for a device or kernel file: raw from the start, non-blocking on
// this side, and with its other side kept open here, so that nobody who opens and closes it hangs
// it up. Removes its link when it dies.
class Pty {
 public:
  // link is the path under which the other side is reached; a link already there is replaced.
  // Throws std::runtime_error with a one-line reason.
  explicit Pty(const std::string& link);
  ~Pty();
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  int fd() const { return master_.get(); }
  // What the other side has written so far, at most size bytes; 0 when there is nothing.
  size_t Read(uint8_t* data, size_t size);
  // Writes what fits and returns how much that was.
  size_t Write(ByteView bytes);
  // Makes reads of the other side return at once when there is nothing to read.
  void SetReadsImmediate();
  // The line speed that the other side has set, bit/s; 0 when it is none that is known here.
  uint32_t Speed() const;
  // Bytes that the other side has not read yet.
  size_t Unread() const;
  // Drops them.
  void DropUnread();

 private:
  const std::string link_;
  ::android::base::unique_fd master_;
  ::android::base::unique_fd slave_;
};

}  // namespace zvk
