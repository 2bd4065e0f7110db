#pragma once

#include <functional>
#include <map>
#include <string>

#include "sim/co_processor/controller_line.h"
#include "sim/co_processor/message_socket.h"
#include "sim/scenario/scenario_runner.h"

namespace zvk {

// The low-power co-processor that the controller's serial line belongs to: a message server, which
// a host reaches over a socket, and the line's other end. It carries packets both ways and takes
// requests for power, low-power mode, line speed and a dump.
class CoProcessor {
 public:
  struct Board {
    // What the host did earlier elsewhere, as switching the controller's power, comes first.
    std::function<void()> before_request;
    // A scenario's say in the request.
    std::function<CommandFault(CoRequest request)> on_request;
    // The controller's memory is wanted.
    std::function<void()> dump;
    std::function<void(const std::string& text)> note;
  };
  // What it tells of itself in the status file.
  struct State {
    bool connected = false;
    uint64_t connections = 0;
    bool powered = false;
    bool low_power = false;
    uint32_t speed_baud = 0;
    std::map<std::string, uint64_t> requests;  // how often each came
  };

  // Throws std::runtime_error with a one-line reason.
  CoProcessor(EventLoop& loop, const std::string& socket, const std::string& line, Board board);
  ~CoProcessor() { loop_.Cancel(&back_); }

  // Of its end of the line, bit/s; 0 while it is off.
  uint32_t line_speed() const { return powered_ ? speed_ : 0; }
  State state() const;

  void Disconnect() { socket_.Disconnect(); }
  // It is gone, with its socket, and comes back after that time; zero: never.
  void Leave(EventLoop::Duration time);
  // Messages to the host: one of any content, one of a type with a table of any content, an event
  // of any kind, and an event of which the second half is missing.
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
