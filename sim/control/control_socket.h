#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <list>
#include <string>

#include "sim/base/event_loop.h"

namespace zvk {

// Where a running simulator takes steps of a scenario: a Unix socket for the simulator's user. A
// client sends one message and gets one, then the connection ends. At most eight clients wait at a
// time, each for at most five seconds; a ninth takes the place of the first.
class ControlSocket {
 public:
  // Carries out a step. Returns an empty text, or why not.
  using Take = std::function<std::string(const std::string& text)>;

  // Throws std::runtime_error with a one-line reason.
  ControlSocket(EventLoop& loop, const std::string& path, Take take);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

 private:
  struct Client {
    ::android::base::unique_fd fd;
    EventLoop::TimerId deadline = EventLoop::kNoTimer;
  };
  using Place = std::list<Client>::iterator;

  void Accept();
  void Answer(Place client);
  void End(Place client);

  EventLoop& loop_;
  const std::string path_;
  const Take take_;
  ::android::base::unique_fd listener_;
  std::list<Client> clients_;  // the oldest first
};

// The client's side. Returns an empty text once the simulator on the root folder has carried out
// the step, or why it has not.
std::string SendControl(const std::string& root, const std::string& text);

// Below the root folder.
constexpr char kControlPath[] = "run/zvksim/control";

}  // namespace zvk
