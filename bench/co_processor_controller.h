#pragma once

#include <string>

#include "controller.h"
#include "tests/bthal/qvr_server.h"

namespace bench {

// A controller behind a co-processor's message server, which grants whatever it is asked for.
class CoProcessorController : public Controller {
 public:
  // Serves the socket of the messaging library below root.
  explicit CoProcessorController(const std::string& root);

  // In one message.
  void SendEvent(const Bytes& event) override;

 private:
  test::QvrServer server_;
};

}  // namespace bench
