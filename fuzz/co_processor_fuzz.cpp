// One message from the co-processor: refused with its lines, or delivered as it came.
#include <android-base/logging.h>
#include <log/log.h>
#include <qvr/qvr_client.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

#include "chre/qvr_helper.h"

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::PacketReceiver;
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

class InlineWorker : public qvr::Worker {
  void Post(std::function<void()> task) override { task(); }
};

int lines;
int delivered_kind;  // 0 when nothing has been delivered
hidl_vec<uint8_t> delivered;

PacketReceiver Receiver(int kind) {
  return [kind](const hidl_vec<uint8_t>& packet) {
    if (delivered_kind != 0) abort();
    delivered_kind = kind;
    delivered = packet;
  };
}

// Reads a message as the format says, and ends the test where it leaves the bytes.
class Message {
 public:
  Message(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint32_t Number(size_t at, size_t bytes) const {
    if (at > size_ || bytes > size_ - at) abort();
    uint32_t number = 0;
    for (size_t i = 0; i < bytes; ++i) number |= static_cast<uint32_t>(data_[at + i]) << (8 * i);
    return number;
  }
  // Where a field of the table is; 0 when it is absent.
  size_t Field(size_t index) const {
    const size_t table = Number(0, 4);
    const auto back = static_cast<int32_t>(Number(table, 4));
    const auto vtable = static_cast<size_t>(static_cast<int64_t>(table) - back);
    const size_t entry = 4 + 2 * index;
    if (entry + 2 > Number(vtable, 2)) return 0;
    const size_t offset = Number(vtable + entry, 2);
    return offset == 0 ? 0 : table + offset;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

void CheckDelivered(const uint8_t* data, size_t size) {
  const Message message(data, size);
  if (message.Number(message.Field(0), 4) != static_cast<uint32_t>(delivered_kind)) abort();
  const size_t field = message.Field(1);
  const size_t packet = field + message.Number(field, 4);
  const uint32_t length = message.Number(packet, 4);
  if (delivered.size() != length || length > size) abort();
  if (memcmp(delivered.data(), data + packet + 4, length) != 0) abort();
}

void Connect() {
  android::base::SetMinimumLogSeverity(android::base::ERROR);
  __android_log_set_logger([](const __android_logger_data*, const char*) { ++lines; });
  QvrHelper& helper = QvrHelper::Get();
  if (!helper.PrepareQvrTransport()) abort();
  helper.InitializeCallback(Receiver(8), Receiver(9), Receiver(10), Receiver(11));
}

}  // namespace

namespace qvr {
int InitClientManager() { return 0; }
void ReleaseClientManager() {}
int CreateTransportClient(int, std::unique_ptr<TransportClient>* client) {
  *client = std::make_unique<Client>();
  return 0;
}
int CreateWorker(const std::string&, std::unique_ptr<Worker>* worker) {
  *worker = std::make_unique<InlineWorker>();
  return 0;
}
}  // namespace qvr

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool connected = (Connect(), true);
  static_cast<void>(connected);
  lines = 0;
  delivered_kind = 0;
  handler(data, size);
  if (delivered_kind == 0) {
    // The malformed have one of the library's, too.
    if (lines != 1 && lines != 2) abort();
    return 0;
  }
  if (lines != 0) abort();
  CheckDelivered(data, size);
  return 0;
}
