#include "sim/handset/pty.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace zvk {
namespace {

struct SpeedCode {
  speed_t code;
  uint32_t bits_per_second;
};

constexpr SpeedCode kSpeedCodes[] = {
    {B9600, 9600},       {B19200, 19200},     {B38400, 38400},     {B57600, 57600},
    {B115200, 115200},   {B230400, 230400},   {B460800, 460800},   {B500000, 500000},
    {B576000, 576000},   {B921600, 921600},   {B1000000, 1000000}, {B1152000, 1152000},
    {B1500000, 1500000}, {B2000000, 2000000}, {B2500000, 2500000}, {B3000000, 3000000},
    {B3500000, 3500000}, {B4000000, 4000000},
};

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

Pty::Pty(const std::string& link) : link_(link) {
  master_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  char name[128];
  if (!master_.ok() || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0 ||
      ptsname_r(master_.get(), name, sizeof(name)) != 0) {
    Fail("cannot make a pseudo-terminal");
  }
  slave_.reset(open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  termios settings{};
  if (!slave_.ok() || tcgetattr(slave_.get(), &settings) != 0) Fail(name);
  cfmakeraw(&settings);
  if (tcsetattr(slave_.get(), TCSANOW, &settings) != 0) Fail(name);

  // Made under another name and renamed: a host finds the old link or the new one.
  const std::string fresh = link + ".new";
  unlink(fresh.c_str());
  if (symlink(name, fresh.c_str()) != 0) Fail(link);
  std::error_code ignored;
  if (std::filesystem::exists(link, ignored) && !std::filesystem::is_symlink(link)) {
    unlink(fresh.c_str());
    throw std::runtime_error(link + " exists and is no link to a pseudo-terminal");
  }
  if (rename(fresh.c_str(), link.c_str()) != 0) Fail(link);
}

Pty::~Pty() { unlink(link_.c_str()); }

size_t Pty::Read(uint8_t* data, size_t size) {
  ssize_t count;
  do {
    count = read(master_.get(), data, size);
  } while (count < 0 && errno == EINTR);
  return count > 0 ? static_cast<size_t>(count) : 0;
}

size_t Pty::Write(ByteView bytes) {
  ssize_t count;
  do {
    count = write(master_.get(), bytes.data(), bytes.size());
  } while (count < 0 && errno == EINTR);
  return count > 0 ? static_cast<size_t>(count) : 0;
}

void Pty::SetReadsImmediate() {
  termios settings{};
  tcgetattr(slave_.get(), &settings);
  settings.c_cc[VMIN] = 0;
  settings.c_cc[VTIME] = 0;
  tcsetattr(slave_.get(), TCSANOW, &settings);
}

uint32_t Pty::Speed() const {
  termios settings{};
  if (tcgetattr(slave_.get(), &settings) != 0) return 0;
  const speed_t code = cfgetospeed(&settings);
  for (const SpeedCode& speed : kSpeedCodes) {
    if (speed.code == code) return speed.bits_per_second;
  }
  return 0;
}

size_t Pty::Unread() const {
  int count = 0;
  return ioctl(slave_.get(), FIONREAD, &count) == 0 ? static_cast<size_t>(count) : 0;
}

void Pty::DropUnread() { tcflush(slave_.get(), TCIFLUSH); }

}  // namespace zvk
