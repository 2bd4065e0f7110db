#pragma once

#include <functional>
#include <map>
#include <string>

#include "sim/co_processor/controller_line.h"
#include "sim/co_processor/message_socket.h"
#include "sim/scenario/scenario_runner.h"

namespace zvk {

// The low-power co-processor that owns the host's end of the controller's serial line: a message
// server, which a host reaches over a socket. It forwards packets in both directions and takes
// requests for power, low-power mode, line speed and a dump.
class CoProcessor {
 public:
  struct Board {
    // Called before a request is carried out, to act on what the host did earlier through other
    // files, such as the controller's power switch.
    std::function<void()> before_request;
    // Returns what the scenario changes about the request.
    std::function<CommandFault(CoRequest request)> on_request;
    // The host asks for a dump of the controller's memory.
    std::function<void()> dump;
    std::function<void(const std::string& text)> note;
  };
  // Shown in the status file.
  struct State {
    bool connected = false;
    uint64_t connections = 0;
    bool powered = false;
    bool low_power = false;
    uint32_t speed_baud = 0;
    std::map<std::string, uint64_t> requests;  // number of requests by name
  };

  // Throws std::runtime_error with a one-line reason.
  CoProcessor(EventLoop& loop, const std::string& socket, const std::string& line, Board board);
  ~CoProcessor() { loop_.Cancel(&back_); }

  // Speed of the co-processor's end of the line in bit/s; 0 while it is off.
  uint32_t line_speed() const { return powered_ ? speed_ : 0; }
  State state() const;

  void Disconnect() { socket_.Disconnect(); }
  // Removes the socket and closes the line, and opens the socket again after time; zero: never.
  void Leave(EventLoop::Duration time);
  // Messages to the host: with any content; of a type with a table of any content; an event of any
  // kind; an event whose second half is missing.
  void SendRaw(const Bytes& datagram) { socket_.SendRaw(datagram); }
  void SendTable(uint32_t type, ByteView table);
  void SendEvent(int kind, ByteView packet);
  void SendTruncatedEvent();

 private:
  struct Request;

  void OnMessage(const CoMessage& message);
  void Run(const Request& request, const CommandFault& fault);
  // Returns 0 or an error number.
  uint32_t Execute(const Request& request, Bytes* answer);
  uint32_t Power(ByteView arguments);
  uint32_t LowPower(ByteView arguments);
  uint32_t Speed(ByteView arguments);
  uint32_t Forward(ByteView payload);

  EventLoop& loop_;
  const Board board_;
  ControllerLine line_;
  MessageSocket socket_;
  bool powered_ = false;
  bool low_power_ = false;
  uint32_t speed_;
  std::map<CoRequest, uint64_t> requests_;
  EventLoop::TimerId back_ = EventLoop::kNoTimer;
};

}  // namespace zvk
