#include "sim/host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace test {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

Host::Host(const std::vector<std::string>& options, const std::string& scenario)
    : zvksim_(Arguments(options, scenario)) {
  EXPECT_TRUE(zvksim_.WaitForOutput("ready " + root() + "\n", kDeadline)) << zvksim_.Output();
}

std::vector<std::string> Host::Arguments(const std::vector<std::string>& options,
                                         const std::string& scenario) const {
  std::vector<std::string> arguments = {ProgramDir() + "/zvksim", "--root", root()};
  arguments.insert(arguments.end(), options.begin(), options.end());
  if (!scenario.empty()) {
    WriteFile(folder_ / "scenario", scenario);
    arguments.insert(arguments.end(), {"--scenario", folder_ / "scenario"});
  }
  return arguments;
}

void Host::Write(const std::string& file, const std::string& text) {
  const ::android::base::unique_fd fd(
      open((root() + file).c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
  EXPECT_EQ(write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size())) << file;
}

bool Host::StatusHolds(const std::string& text) {
  return WaitFor(
      [&] { return ReadFile(root() + "/run/zvksim/status").find(text) != std::string::npos; });
}

bool Host::Started() {
  return StatusHolds("\"starts\": " + std::to_string(++starts_) + ",") &&
         StatusHolds("\"listening\": true");
}

void Host::PowerUp() {
  Power(false);
  Power(true);
  EXPECT_TRUE(Started());
  const std::string line = root() + "/dev/ttySAC16";
  line_.reset(open(line.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(line_.ok());
  SetSpeed(115200);
}

void Host::SetSpeed(int bits_per_second) {
  termios settings{};
  ASSERT_EQ(tcgetattr(line_.get(), &settings), 0);
  cfmakeraw(&settings);
  cfsetspeed(&settings, bits_per_second == 4000000   ? B4000000
                        : bits_per_second == 3000000 ? B3000000
                                                     : B115200);
  ASSERT_EQ(tcsetattr(line_.get(), TCSANOW, &settings), 0);
  tcflush(line_.get(), TCIOFLUSH);
  received_.clear();
}

void Host::Send(const Bytes& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(line_.get(), bytes.data() + sent, bytes.size() - sent);
    if (count > 0) sent += static_cast<size_t>(count);
    if (count > 0 || errno == EINTR) continue;
    ASSERT_EQ(errno, EAGAIN);
    // The host reads meanwhile, as both directions may be full.
    pollfd ready{line_.get(), POLLIN | POLLOUT, 0};
    poll(&ready, 1, 1000);
    received_ = Receive(SIZE_MAX, milliseconds(0));
  }
}

Bytes Host::Receive(size_t size, milliseconds deadline) {
  const auto end = steady_clock::now() + deadline;
  while (received_.size() < size) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    pollfd ready{line_.get(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(std::max<int64_t>(0, left.count()))) <= 0) break;
    uint8_t data[65536];
    const ssize_t count = read(line_.get(), data, sizeof(data));
    if (count <= 0) break;
    received_.insert(received_.end(), data, data + count);
  }
  const auto taken = received_.begin() + static_cast<ptrdiff_t>(std::min(size, received_.size()));
  const Bytes bytes(received_.begin(), taken);
  received_.erase(received_.begin(), taken);
  return bytes;
}

Bytes Host::Next() {
  Bytes packet = Receive(1);
  if (packet.empty()) return packet;
  // Header sizes and length fields: Core 5.3, 4.E.5.4.
  const bool two_byte_length = packet[0] == 2 || packet[0] == 5;
  packet = packet + Receive(packet[0] == 4 ? 2 : two_byte_length ? 4 : 3);
  size_t size = packet.at(packet.size() - (two_byte_length ? 2 : 1));
  if (two_byte_length) size += (packet.back() & 0x3Fu) << 8;
  return packet + Receive(size);
}

Bytes Host::Command(uint16_t opcode, const Bytes& params) {
  const Bytes number = {static_cast<uint8_t>(opcode), static_cast<uint8_t>(opcode >> 8)};
  Send(Bytes{0x01} + number + Bytes{static_cast<uint8_t>(params.size())} + params);
  for (;;) {
    const Bytes packet = Next();
    if (packet.size() < 6 || packet[0] != 4) {
      if (packet.empty()) return packet;
      continue;
    }
    const ptrdiff_t at = packet[1] == 0x0E ? 4 : 5;
    const bool answer = packet[1] == 0x0E || packet[1] == 0x0F;
    if (answer && std::equal(number.begin(), number.end(), packet.begin() + at)) return packet;
  }
}

}  // namespace test
