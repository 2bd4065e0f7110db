#include "bthal/uart_rig.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "bthal/child_case.h"
#include "transport_shim.h"

namespace test {
namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;

// Written on the host's end to find out what was written before it.
const Bytes kMark = {0xDE, 0xAD, 0xBE, 0xEF, 0xFE, 0xED};
// An event that the stack gets and nobody else cares for.
const Bytes kMarkerEvent = {0x3E, 0x02, 0x7F, 0x7F};

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
  if (openpty(&master_, &slave_, name, &raw, nullptr) != 0) throw std::runtime_error("openpty");
  fcntl(master_, F_SETFD, FD_CLOEXEC);
  fcntl(slave_, F_SETFD, FD_CLOEXEC);
  path_ = name;
}

Pty::~Pty() { HangUp(); }

void Pty::HangUp() {
  if (master_ < 0) return;
  close(slave_);
  close(master_);
  master_ = -1;
}

Bytes Pty::TakeWritten() {
  WriteAll(slave_, kMark);
  for (;;) {
    // The host may have written on behind the mark by now.
    const auto mark = std::search(unread_.begin(), unread_.end(), kMark.begin(), kMark.end());
    if (mark != unread_.end()) {
      const Bytes bytes(unread_.begin(), mark);
      unread_.erase(unread_.begin(), mark + static_cast<long>(kMark.size()));
      return bytes;
    }
    uint8_t chunk[4096];
    pollfd readable{master_, POLLIN, 0};
    if (poll(&readable, 1, 10000) != 1) throw std::runtime_error("nothing more from the host");
    const ssize_t n = read(master_, chunk, sizeof chunk);
    if (n <= 0) throw std::runtime_error("read of a pty");
    unread_.insert(unread_.end(), chunk, chunk + n);
  }
}

void Pty::WriteToHost(const Bytes& bytes) { WriteAll(master_, bytes); }

int Pty::Unread() const {
  int count = -1;
  ioctl(slave_, FIONREAD, &count);
  return count;
}

UartRig::UartRig() {
  const std::string link = RootFolder() + kUartPort;
  std::filesystem::create_directories(std::filesystem::path(link).parent_path());
  std::filesystem::remove(link);
  std::filesystem::create_symlink(pty_.path(), link);
}

UartRig::~UartRig() { shim::Deinitialize(); }

bool UartRig::Open() {
  const auto receiver = [this](uint8_t type) {
    return [this, type](const hidl_vec<uint8_t>& packet) { Record(type, packet); };
  };
  auto* flow = shim::InitializeHciHandle(receiver(4), receiver(2), receiver(3), receiver(5));
  if (flow == nullptr) return false;
  flow_ = flow->shared_from_this();
  return true;
}

void UartRig::Record(uint8_t type, const hidl_vec<uint8_t>& packet) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (ToBytes(packet) == kMarkerEvent) {
    ++markers_;
  } else {
    received_.push_back({type, ToBytes(packet)});
  }
}

void UartRig::DeliverEvent(const Bytes& event) {
  const auto markers = [this] {
    const std::lock_guard<std::mutex> guard(lock_);
    return markers_;
  };
  const int before = markers();
  Bytes stream = {0x04};
  stream.insert(stream.end(), event.begin(), event.end());
  stream.push_back(0x04);
  stream.insert(stream.end(), kMarkerEvent.begin(), kMarkerEvent.end());
  pty_.WriteToHost(stream);
  if (!WaitFor([&] { return markers() > before; })) throw std::runtime_error("event not taken");
}

std::vector<UartRig::Packet> UartRig::TakeReceived() {
  const std::lock_guard<std::mutex> guard(lock_);
  return std::exchange(received_, {});
}

}  // namespace test
