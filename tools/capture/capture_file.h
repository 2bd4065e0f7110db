// Where a capture goes: standard output, or a file and the older ones beside it.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/wire/record_splitter.h"

namespace bthalctl {

using wire::Bytes;
using wire::CaptureRecord;
using wire::RecordKind;

// FILE, FILE.1, FILE.2, …: at so many bytes a file becomes the next older one. 0: one file without
// an end.
struct Rotation {
  uint64_t size_bytes = 0;
  unsigned count = 1;  // of files, the one that is written included
};

// Writes each record in one piece. A file that follows another begins with the same heads. The
// files are for their owner and its group. Throws Failure.
class CaptureFile {
 public:
  // path "-" means standard output.
  CaptureFile(std::string path, Rotation rotation);

  void Write(const CaptureRecord& record);
  // The same for a pipe: returns false when its reader has gone.
  bool TryWrite(const CaptureRecord& record);
  uint64_t bytes() const { return bytes_; }  // in all

 private:
  void Open();
  void Rotate();
  void WriteBytes(const Bytes& bytes);

  const std::string path_;
  const Rotation rotation_;
  ::android::base::unique_fd own_;
  int fd_ = -1;
  std::vector<Bytes> heads_;
  bool reader_gone_ = false;
  bool begun_ = false;    // a packet or a note has come
  uint64_t in_file_ = 0;  // bytes
  uint64_t bytes_ = 0;
};

}  // namespace bthalctl
