#include "sim/co_processor/controller_line.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr size_t kReadBytes = 65536;
constexpr size_t kMostQueued = 1048576;
constexpr int kReadsPerTurn = 16;

}  // namespace

ControllerLine::ControllerLine(EventLoop& loop, const std::string& path,
                               H4Framer::OnPacket on_packet)
    : loop_(loop),
      path_(path),
      framer_(H4Framer::From::kController, std::move(on_packet),
              [this](uint8_t bad) {
                Log("co-processor: no packet type from the controller: 0x%02X", bad);
                framer_.Reset();
              }),
      received_(kReadBytes) {}

bool ControllerLine::Open() {
  Close();
  line_ = UniqueFd(open(path_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!line_.ok()) return false;
  loop_.Watch(line_.get(), EPOLLIN, [this](uint32_t events) { OnReady(events); });
  return true;
}

void ControllerLine::Close() {
  if (line_.ok()) loop_.Unwatch(line_.get());
  line_.Reset();
  queue_.clear();
  framer_.Reset();
}

bool ControllerLine::Send(PacketType type, ByteView packet) {
  if (!line_.ok() || queue_.size() + packet.size() > kMostQueued) return false;
  queue_.push_back(static_cast<uint8_t>(type));
  queue_.insert(queue_.end(), packet.begin(), packet.end());
  Flush();
  return true;
}

void ControllerLine::OnReady(uint32_t events) {
  if ((events & EPOLLOUT) != 0) Flush();
  if ((events & (EPOLLIN | EPOLLHUP)) != 0) Read();
}

void ControllerLine::Read() {
  for (int turn = 0; turn < kReadsPerTurn && line_.ok(); ++turn) {
    const ssize_t count = read(line_.get(), received_.data(), received_.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      Log("co-processor: the line to the controller hung up");
      Close();
      return;
    }
    framer_.Push({received_.data(), static_cast<size_t>(count)});
  }
}

void ControllerLine::Flush() {
  const ssize_t count = queue_.empty() ? 0 : write(line_.get(), queue_.data(), queue_.size());
  if (count > 0) queue_.erase(queue_.begin(), queue_.begin() + count);
  loop_.Change(line_.get(), queue_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

}  // namespace zvk
