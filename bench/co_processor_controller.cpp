#include "co_processor_controller.h"

namespace bench {
namespace {

constexpr uint32_t kHciMessage = 8;
constexpr uint32_t kEvent = 8;
constexpr uint8_t kCommandPacket = 0x01;

// Before the command in the payload: whether flow control counts it, H4 packet type.
constexpr size_t kPrefix = 2;

}  // namespace

CoProcessorController::CoProcessorController(const std::string& root) : server_(root) {
  server_.SetScript([this](const test::QvrRequest& request) -> std::optional<uint32_t> {
    const Bytes& payload = request.payload;
    if (request.message_type == kHciMessage && payload.size() >= kPrefix + 2 &&
        payload[1] == kCommandPacket) {
      SendEvent(Success(&payload[kPrefix]));
    }
    return 0;
  });
}

void CoProcessorController::SendEvent(const Bytes& event) {
  server_.SendMessage(test::QvrEvent(kEvent, event));
}

}  // namespace bench
