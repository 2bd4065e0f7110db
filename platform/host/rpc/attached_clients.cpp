#include "rpc/attached_clients.h"

#include <mutex>

#include "system/readiness.h"

namespace bthal::rpc {

void CountAttached(int change) {
  static std::mutex mutex;  // held while telling: the last message is the last state
  static int attached = 0;
  const std::lock_guard<std::mutex> lock(mutex);
  const bool before = attached > 0;
  attached += change;
  if ((attached > 0) != before) {
    TellStatus(attached > 0 ? "a client is attached" : "no client is attached");
  }
}

}  // namespace bthal::rpc
