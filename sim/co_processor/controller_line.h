#pragma once

#include <functional>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/base/unique_fd.h"
#include "sim/wire.h"

namespace zvk {

// The co-processor's end of the serial line to the controller: a host of its own, which frames what
// comes and queues what the line does not take.
class ControllerLine {
 public:
  ControllerLine(EventLoop& loop, const std::string& path, H4Framer::OnPacket on_packet);
  ~ControllerLine() { Close(); }

  // Returns false when it cannot be opened. An open line is opened anew.
  bool Open();
  void Close();
  // Returns false when too much waits for the line, or it is not open.
  bool Send(PacketType type, ByteView packet);
  // Forgets half a packet.
  void Restart() { framer_.Reset(); }

 private:
  void OnReady(uint32_t events);
  void Read();
  void Flush();

  EventLoop& loop_;
  const std::string path_;
  H4Framer framer_;
  UniqueFd line_;
  Bytes queue_;
  Bytes received_;
};

}  // namespace zvk
