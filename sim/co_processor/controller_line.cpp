#include "sim/co_processor/controller_line.h"

#include <fcntl.h>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr Stream::Limits kLineLimits = {65536, 1048576};
constexpr size_t kFullBytes = 65536;

}  // namespace

ControllerLine::ControllerLine(EventLoop& loop, const std::string& path,
                               H4Framer::OnPacket on_packet, std::function<void()> on_room)
    : path_(path),
      framer_(H4Framer::From::kController, std::move(on_packet),
              [this](uint8_t bad) {
                Log("co-processor: the controller sent 0x%02X, which is no packet type", bad);
                framer_.Reset();
              }),
      on_room_(std::move(on_room)),
      line_(
          loop, kLineLimits, [this](ByteView bytes) { framer_.Push(bytes); },
          [this] {
            Log("co-processor: the line to the controller hung up");
            Close();
          }) {
  line_.SetOnSent(on_room_);
}

bool ControllerLine::Open() {
  Close();
  ::android::base::unique_fd line(open(path_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!line.ok()) return false;
  line_.Open(std::move(line));
  return true;
}

void ControllerLine::Close() {
  line_.Close();
  framer_.Reset();
  on_room_();
}

bool ControllerLine::Send(PacketType type, ByteView packet) {
  return line_.is_open() && line_.Send(Writer{static_cast<uint8_t>(type)}.Append(packet).Done());
}

bool ControllerLine::full() const { return line_.waiting_bytes() > kFullBytes; }

}  // namespace zvk
