// The client of platform/host/qvr/README.md's protocol.
#pragma once

#include <qvr/qvr_client.h>

#include <memory>
#include <mutex>
#include <thread>

namespace qvr {

class SocketClient : public TransportClient {
 public:
  SocketClient();
  ~SocketClient() override;
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  int Connect() override;
  int FindServer(const std::string& name, uint32_t* id) override;
  int SetConnectionHandler(std::function<void()> on_lost) override;
  int SetMessageHandler(uint32_t type, MessageHandler handler) override;
  int Send(const Request& request, std::function<void(int error)> on_complete) override;
  int Call(const Request& request, std::chrono::milliseconds timeout, int* response_error) override;

 private:
  struct Link;
  const std::shared_ptr<Link> link_;  // shared with the reading thread
  std::thread thread_;                // written by Connect() only
};

}  // namespace qvr
