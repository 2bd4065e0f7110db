#include "qvr/client.h"

namespace qvr {

// A Unix socket needs no process-wide part.
int InitClientManager() { return 0; }
void ReleaseClientManager() {}

int CreateTransportClient(int type, std::unique_ptr<TransportClient>* client) {
  constexpr int kMessages = 1;
  if (type != kMessages) return kNotSupported;
  *client = std::make_unique<SocketClient>();
  return 0;
}

}  // namespace qvr
