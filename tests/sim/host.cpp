#include "tests/sim/host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

size_t PacketSize(const Bytes& bytes) {
  const size_t header = bytes[0] == 4 ? 3 : bytes[0] == 3 ? 4 : 5;
  if (bytes.size() < header) return SIZE_MAX;
  switch (bytes[0]) {
    case 4:
      return header + bytes[2];
    case 3:
      return header + bytes[3];
    case 5:
      return header + bytes[3] + ((bytes[4] & 0x3Fu) << 8);
    default:
      return header + bytes[3] + (static_cast<unsigned>(bytes[4]) << 8);
  }
}

bool Begins(const Bytes& bytes, const Bytes& start) {
  return bytes.size() >= start.size() && std::equal(start.begin(), start.end(), bytes.begin());
}

}  // namespace

uint64_t Little(const Bytes& bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = width; i-- > 0;) value = value << 8 | bytes.at(at + i);
  return value;
}

Bytes Pattern(size_t n) {
  static const Bytes kSpecial = {0x0A, 0x0D, 0x11, 0x13, 0xFF, 0x00, 0x03, 0x7F};
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) {
    bytes[i] = i % 3 == 0 ? kSpecial[(i / 3) % kSpecial.size()] : static_cast<uint8_t>(i);
  }
  return bytes;
}

Host::Host(const std::vector<std::string>& options, const std::string& scenario)
    : root_(folder_ / "root") {
  command_ = {ProgramDir() + "/zvksim", "--root", root_};
  command_.insert(command_.end(), options.begin(), options.end());
  if (!scenario.empty()) {
    WriteFile(folder_ / "scenario", scenario);
    command_.insert(command_.end(), {"--scenario", folder_ / "scenario"});
  }
  Start();
}

Host::~Host() { CloseLine(); }

void Host::Start() {
  starts_ = 0;
  zvksim_ = std::make_unique<ChildProcess>(command_);
  EXPECT_TRUE(zvksim_->WaitForOutput("ready " + root_ + "\n", kDeadline)) << zvksim_->Output();
}

void Host::Restart() {
  CloseLine();
  zvksim_->Signal(SIGTERM);
  EXPECT_EQ(zvksim_->Wait(kDeadline)->exit_code, 0);
  Start();
}

Bytes Host::Firmware(const std::string& name) const {
  const std::string file = ReadFile(root_ + "/vendor/firmware/tovu/" + name);
  return Bytes(file.begin(), file.end());
}

void Host::Write(const std::string& file, const std::string& text) {
  const int fd = open((root_ + file).c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(fd, 0) << file;
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size())) << file;
  close(fd);
}

bool Host::StatusHolds(const std::string& text) {
  return WaitFor([&] { return Status().find(text) != std::string::npos; });
}

bool Host::Started() {
  const std::string starts = "\"starts\": " + std::to_string(++starts_) + ",";
  return WaitFor([&] {
    const std::string status = Status();
    return status.find(starts) != std::string::npos &&
           status.find("\"listening\": true") != std::string::npos;
  });
}

void Host::OpenLine(int bits_per_second) {
  CloseLine();
  line_ = open((root_ + "/dev/ttySAC16").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(line_, 0);
  hung_up_ = false;
  SetSpeed(bits_per_second);
}

void Host::SetSpeed(int bits_per_second) {
  termios settings{};
  ASSERT_EQ(tcgetattr(line_, &settings), 0);
  cfmakeraw(&settings);
  cfsetspeed(&settings, bits_per_second == 4000000   ? B4000000
                        : bits_per_second == 3000000 ? B3000000
                                                     : B115200);
  ASSERT_EQ(tcsetattr(line_, TCSANOW, &settings), 0);
  tcflush(line_, TCIOFLUSH);
  received_.clear();
}

void Host::CloseLine() {
  if (line_ >= 0) close(line_);
  line_ = -1;
  received_.clear();
}

void Host::Send(const Bytes& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = write(line_, bytes.data() + sent, bytes.size() - sent);
    if (count > 0) sent += static_cast<size_t>(count);
    if (count < 0 && errno != EAGAIN && errno != EINTR) FAIL() << "write: " << errno;
    if (sent == bytes.size()) return;
    // Reading meanwhile, as a host does: both ways may be full.
    pollfd ready{line_, POLLIN | POLLOUT, 0};
    poll(&ready, 1, 1000);
    if ((ready.revents & POLLIN) != 0) Fill(steady_clock::now());
  }
}

// Waits for bytes until then; false when none came.
bool Host::Fill(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
  pollfd ready{line_, POLLIN, 0};
  if (poll(&ready, 1, static_cast<int>(std::max<int64_t>(0, left.count()))) <= 0) return false;
  uint8_t data[65536];
  const ssize_t count = read(line_, data, sizeof(data));
  if (count == 0 || (count < 0 && errno == EIO)) hung_up_ = true;
  if (count <= 0) return false;
  received_.insert(received_.end(), data, data + count);
  return true;
}

Bytes Host::Next(milliseconds deadline) {
  const auto end = steady_clock::now() + deadline;
  while (received_.empty() || PacketSize(received_) > received_.size()) {
    if (!Fill(end)) return {};
  }
  const auto size = static_cast<ptrdiff_t>(PacketSize(received_));
  Bytes packet(received_.begin(), received_.begin() + size);
  received_.erase(received_.begin(), received_.begin() + size);
  return packet;
}

Bytes Host::Raw(milliseconds deadline) {
  if (received_.empty()) Fill(steady_clock::now() + deadline);
  Bytes bytes;
  bytes.swap(received_);
  return bytes;
}

Bytes Host::Raw(size_t size) {
  Bytes bytes;
  while (bytes.size() < size) {
    const Bytes more = Raw();
    if (more.empty()) break;
    bytes = bytes + more;
  }
  return bytes;
}

void Host::Settle(milliseconds quiet) {
  while (Fill(steady_clock::now() + quiet)) {
  }
  received_.clear();
}

Bytes Host::Command(uint16_t opcode, const Bytes& params) {
  const auto low = static_cast<uint8_t>(opcode);
  const auto high = static_cast<uint8_t>(opcode >> 8);
  Send(Bytes{0x01, low, high, static_cast<uint8_t>(params.size())} + params);
  before_.clear();
  for (;;) {
    const Bytes packet = Next();
    if (packet.empty()) return packet;
    const bool complete =
        packet[0] == 4 && packet[1] == 0x0E && packet[4] == low && packet[5] == high;
    const bool status =
        packet[0] == 4 && packet[1] == 0x0F && packet[5] == low && packet[6] == high;
    if (complete || status) return packet;
    before_.push_back(packet);
  }
}

Bytes Host::Find(const Bytes& start, milliseconds deadline) {
  const auto end = steady_clock::now() + deadline;
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (left.count() <= 0) return {};
    const Bytes packet = Next(left);
    if (packet.empty() || Begins(packet, start)) return packet;
  }
}

void Host::PowerUp() {
  Power(false);
  Power(true);
  EXPECT_TRUE(Started());
  OpenLine();
}

uint8_t Host::Download(const Bytes& file, bool fast) {
  for (size_t at = 0; at + 3 <= file.size();) {
    const auto opcode = static_cast<uint16_t>(file[at] | (file[at + 1] << 8));
    const size_t size = file[at + 2];
    const auto params = file.begin() + static_cast<ptrdiff_t>(at) + 3;
    const Bytes record(params, params + static_cast<ptrdiff_t>(size));
    if (fast && opcode != 0xFC4E) {
      Send(Bytes{0x01, file[at], file[at + 1], file[at + 2]} + record);
    } else {
      const Bytes answer = Command(opcode, record);
      if (answer.size() < 7) return 0xFF;
      if (answer[6] != 0 || opcode == 0xFC4E) return answer[6];
    }
    at += 3 + size;
  }
  return 0;
}

void Host::BringUp(const std::string& firmware, bool fast) {
  PowerUp();
  EXPECT_EQ(Command(0x0C03), B("04 0e 04 01 03 0c 00"));
  if (fast) {
    EXPECT_EQ(Command(0xFE72, B("00 01")), B("04 0e 04 01 72 fe 00"));
  }
  EXPECT_EQ(Command(0xFC2E), B("04 0e 04 01 2e fc 00"));
  EXPECT_EQ(Download(Firmware(firmware), fast), 0);
  EXPECT_TRUE(Started());
}

}  // namespace test
