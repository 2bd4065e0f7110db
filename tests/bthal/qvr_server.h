// The co-processor's end of the messaging library's socket, scripted by a test.
#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/vectors.h"

namespace test {

// Kinds of datagrams.
enum QvrKind : uint32_t {
  kQvrFind = 1,
  kQvrFound = 2,
  kQvrSend = 3,
  kQvrCall = 5,
  kQvrResponse = 6,
  kQvrMessage = 7,
};

struct QvrRequest {
  uint32_t kind = 0;  // kQvrSend or kQvrCall
  uint32_t serial = 0;
  uint32_t message_type = 0;
  uint32_t server_id = 0;
  Bytes payload;
};

// Serves ROOT/run/qvr/transport on a thread of its own, one client at a time, and notes what it is
// asked. Any thread may use it.
class QvrServer {
 public:
  // The error that a request is answered with; nothing for no answer. Runs on the server's thread.
  using Script = std::function<std::optional<uint32_t>(const QvrRequest&)>;

  static constexpr uint32_t kServerId = 0xA1B2C3D4;

  explicit QvrServer(const std::string& root);
  ~QvrServer();
  QvrServer(const QvrServer&) = delete;
  QvrServer& operator=(const QvrServer&) = delete;

  // Without a script, whatever is asked succeeds.
  void SetScript(Script script);
  // What has been asked for so far, from its construction on, but for finds.
  std::vector<QvrRequest> Requests();
  // The same, once there are count of them (or after a deadline).
  std::vector<QvrRequest> WaitForRequests(size_t count);

  void Answer(const QvrRequest& request, uint32_t error);
  // table: of a message of that type.
  void SendMessage(const Bytes& table, uint32_t type = 8);
  void SendDatagram(const Bytes& datagram);
  // Ends the connection with the client; the socket stays.
  void Disconnect();
  bool WaitForConnection(bool connected);

  static Bytes Datagram(uint32_t kind, uint32_t serial, uint32_t value, const Bytes& table,
                        const Bytes& payload);

 private:
  void Run();
  void Serve(const Bytes& datagram);

  const android::base::unique_fd listener_;
  const android::base::unique_fd stop_;
  std::mutex lock_;                  // of all that follow
  android::base::unique_fd client_;  // changed by the thread only
  Script script_;
  std::vector<QvrRequest> requests_;
  std::thread thread_;
};

// An event table as the schema says, for a packet that the data does not have.
Bytes QvrEvent(uint32_t kind, const Bytes& packet);

}  // namespace test
