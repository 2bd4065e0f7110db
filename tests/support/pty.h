// A pty in the place of a serial port.
#pragma once

#include <android-base/unique_fd.h>

#include <string>

#include "support/vectors.h"

namespace test {

class Pty {
 public:
  Pty();
  int master() const { return master_.get(); }
  const std::string& path() const { return path_; }  // of the host's end
  // Exactly what the host has written since the last call.
  Bytes TakeWritten();
  void WriteToHost(const Bytes& bytes);
  // Bytes that the host has not read yet.
  int Unread() const;
  void DropUnread();
  // The speed that the host's side stands at, in bit/s; 0 for one that no test uses.
  int Speed() const;
  // The far end is gone: the host reads an end of file and cannot write.
  void HangUp();

 private:
  android::base::unique_fd master_;
  android::base::unique_fd slave_;  // kept open, so that the host may come and go
  std::string path_;
  Bytes unread_;  // written by the host, not taken yet
};

// One that the host finds at a path of its own. Makes the folders above it, too.
class LinkedPty : public Pty {
 public:
  explicit LinkedPty(const std::string& link);
  ~LinkedPty();

 private:
  const std::string link_;
};

}  // namespace test
