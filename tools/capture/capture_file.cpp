#include "tools/capture/capture_file.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/base/failure.h"

namespace bthalctl {

CaptureFile::CaptureFile(std::string path, Rotation rotation)
    : path_(std::move(path)), rotation_(rotation) {
  Open();
}

void CaptureFile::Open() {
  if (path_ == "-") {
    fd_ = STDOUT_FILENO;
    return;
  }
  own_.reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
  fd_ = own_.get();
  if (fd_ < 0) throw Failure(WithErrno("cannot write " + path_));
}

void CaptureFile::Rotate() {
  const auto name = [this](unsigned age) {
    return age == 0 ? path_ : path_ + "." + std::to_string(age);
  };
  for (unsigned age = rotation_.count - 1; age > 0; --age) {
    if (rename(name(age - 1).c_str(), name(age).c_str()) != 0 && errno != ENOENT) {
      throw Failure(WithErrno("cannot rename " + name(age - 1)));
    }
  }
  Open();
  in_file_ = 0;
  for (const Bytes& head : heads_) WriteBytes(head);
}

void CaptureFile::WriteBytes(const Bytes& bytes) {
  if (!::android::base::WriteFully(fd_, bytes.data(), bytes.size())) {
    reader_gone_ = errno == EPIPE;
    throw Failure(WithErrno("cannot write " + (path_ == "-" ? "the capture" : path_)));
  }
  in_file_ += bytes.size();
  bytes_ += bytes.size();
}

bool CaptureFile::TryWrite(const CaptureRecord& record) {
  try {
    Write(record);
  } catch (const Failure&) {
    if (reader_gone_) return false;
    throw;
  }
  return true;
}

void CaptureFile::Write(const CaptureRecord& record) {
  if (record.kind == RecordKind::kHead) {
    heads_.push_back(record.bytes);
  } else if (rotation_.size_bytes > 0 && begun_ &&
             in_file_ + record.bytes.size() > rotation_.size_bytes) {
    Rotate();
  }
  begun_ = begun_ || record.kind != RecordKind::kHead;
  WriteBytes(record.bytes);
}

}  // namespace bthalctl
