#pragma once

#include <string>

#include "sim/base/stream.h"
#include "sim/wire.h"

namespace zvk {

// The co-processor's end of the serial line to the controller, with a framer of its own.
class ControllerLine {
 public:
  // on_room is called when a line that was full is so no more.
  ControllerLine(EventLoop& loop, const std::string& path, H4Framer::OnPacket on_packet,
                 std::function<void()> on_room);

  // Opens the line, anew if it is open. Returns false when that fails.
  bool Open();
  void Close();
  // Returns false when too much waits for the line, or it is not open.
  bool Send(PacketType type, ByteView packet);
  // Whether so much waits for the line that its sender should, too.
  bool full() const;
  // Forgets the packet that has come in part.
  void Restart() { framer_.Reset(); }

 private:
  const std::string path_;
  H4Framer framer_;
  const std::function<void()> on_room_;
  Stream line_;
};

}  // namespace zvk
