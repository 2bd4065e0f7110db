#pragma once

#include <android-base/unique_fd.h>

#include <string>
#include <thread>

#include "controller.h"
#include "sink.h"

namespace bench {

// The host's end of a relay that offers a Unix socket.
class SocketHost {
 public:
  enum class Carries { kH4, kMessages };  // H4 packets of a tty, messages of a co-processor

  // Waits until somebody listens at path, which is removed with this object. Throws
  // std::runtime_error when nobody does.
  SocketHost(const std::string& path, Carries carries, Sink* sink);
  ~SocketHost();

  void SendCommand();
  // As H4 only.
  void SendAcl(const Bytes& data);

 private:
  void Send(const Bytes& bytes);
  void ReadPackets();
  void ReadMessages();

  const Carries carries_;
  const std::string path_;
  Sink* const sink_;
  android::base::unique_fd socket_;
  std::thread reader_;
};

}  // namespace bench
