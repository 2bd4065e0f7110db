// One message from the co-processor: refused with its lines, or delivered as it came.
#include <android-base/logging.h>
#include <log/log.h>
#include <qvr/qvr_client.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "chre/qvr_helper.h"
#include "target.h"

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::QvrHelper;

namespace {

qvr::TransportClient::MessageHandler handler;  // for messages of type 8

// In the place of the library: a connection that only takes the handler of messages.
class Client : public qvr::TransportClient {
  int Connect() override { return 0; }
  int FindServer(const std::string&, uint32_t*) override { return 0; }
  int SetConnectionHandler(std::function<void()>) override { return 0; }
  int SetMessageHandler(uint32_t type, MessageHandler new_handler) override {
    if (type == 8) handler = std::move(new_handler);
    return 0;
  }
  int Send(const qvr::Request&, std::function<void(int)>) override { return 0; }
  int Call(const qvr::Request&, std::chrono::milliseconds, int*) override { return 0; }
};

int lines;
hidl_vec<uint8_t> delivered;
bool is_delivered;

void Receive(const hidl_vec<uint8_t>& packet) {
  fuzz::Require(!is_delivered, "a message is delivered once");
  is_delivered = true;
  delivered = packet;
}

void Connect() {
  android::base::SetMinimumLogSeverity(android::base::ERROR);
  __android_log_set_logger([](const __android_logger_data*, const char*) { ++lines; });
  QvrHelper& helper = QvrHelper::Get();
  fuzz::Require(helper.PrepareQvrTransport(), "there is a connection");
  helper.InitializeCallback(Receive, Receive, Receive, Receive);
}

}  // namespace

namespace qvr {
int CreateTransportClient(int, std::unique_ptr<TransportClient>* client) {
  *client = std::make_unique<Client>();
  return 0;
}
}  // namespace qvr

std::vector<std::string> fuzz::Seeds() { return Packets("qvr_messages.txt"); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool connected = (Connect(), true);
  static_cast<void>(connected);
  lines = 0;
  is_delivered = false;
  handler(data, size);
  // A message that is refused has a line; the malformed have one of the library's, too.
  fuzz::Require(is_delivered ? lines == 0 : lines == 1 || lines == 2, "a refusal has its lines");
  if (!is_delivered) return 0;
  // The packet lies in the message, behind its length.
  const auto length = static_cast<uint32_t>(delivered.size());
  std::string expected(reinterpret_cast<const char*>(&length), sizeof length);
  expected.append(delivered.begin(), delivered.end());
  fuzz::Require(std::string(data, data + size).find(expected) != std::string::npos,
                "the packet lies in the message");
  return 0;
}
