#include "support/pty.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace test {
namespace {

// Written on the host's end to find out what was written before it.
const Bytes kMark = {0xDE, 0xAD, 0xBE, 0xEF, 0xFE, 0xED};

void WriteAll(int fd, const Bytes& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) throw std::runtime_error("write to a pty");
    done += static_cast<size_t>(n);
  }
}

}  // namespace

Pty::Pty() {
  termios raw{};
  cfmakeraw(&raw);
  raw.c_cflag |= CREAD;
  char name[64];
  int ends[2];
  if (openpty(&ends[0], &ends[1], name, &raw, nullptr) != 0) throw std::runtime_error("openpty");
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  master_.reset(ends[0]);
  slave_.reset(ends[1]);
  path_ = name;
}

void Pty::HangUp() {
  slave_.reset();
  master_.reset();
}

Bytes Pty::TakeWritten() {
  WriteAll(slave_.get(), kMark);
  for (;;) {
    // The host may have written on behind the mark by now.
    const auto mark = std::search(unread_.begin(), unread_.end(), kMark.begin(), kMark.end());
    if (mark != unread_.end()) {
      const Bytes bytes(unread_.begin(), mark);
      unread_.erase(unread_.begin(), mark + static_cast<long>(kMark.size()));
      return bytes;
    }
    uint8_t chunk[4096];
    pollfd readable{master(), POLLIN, 0};
    if (poll(&readable, 1, 10000) != 1) throw std::runtime_error("nothing more from the host");
    const ssize_t n = read(master(), chunk, sizeof chunk);
    if (n <= 0) throw std::runtime_error("read of a pty");
    unread_.insert(unread_.end(), chunk, chunk + n);
  }
}

void Pty::WriteToHost(const Bytes& bytes) { WriteAll(master(), bytes); }

int Pty::Speed() const {
  termios settings{};
  tcgetattr(master(), &settings);  // a pty has one set for both ends
  const std::map<speed_t, int> speeds = {
      {B115200, 115200}, {B3000000, 3000000}, {B4000000, 4000000}};
  const auto found = speeds.find(cfgetospeed(&settings));
  return found == speeds.end() ? 0 : found->second;
}

int Pty::Unread() const {
  int count = -1;
  ioctl(slave_.get(), FIONREAD, &count);
  return count;
}

void Pty::DropUnread() { tcflush(slave_.get(), TCIFLUSH); }

LinkedPty::LinkedPty(const std::string& link) : link_(link) {
  std::filesystem::create_directories(std::filesystem::path(link).parent_path());
  std::filesystem::remove(link);
  std::filesystem::create_symlink(path(), link);
}

LinkedPty::~LinkedPty() {
  std::error_code ignored;
  std::filesystem::remove(link_, ignored);
}

}  // namespace test
