#include "bthal/qvr_fake.h"

#include <utility>

namespace test {
namespace {

// Counts a call and returns its result.
int Result(const char* function) {
  QvrFake& fake = QvrFake::Get();
  ++fake.calls[function];
  std::deque<int>& results = fake.results[function];
  if (results.empty()) return 0;
  const int result = results.front();
  results.pop_front();
  return result;
}

class Client : public qvr::TransportClient {
 public:
  ~Client() override { QvrFake::Get().handler = nullptr; }
  int Connect() override { return Result("Connect"); }
  int FindServer(const std::string&, uint32_t* id) override {
    *id = 1;
    return Result("FindServer");
  }
  int SetConnectionHandler(std::function<void()>) override {
    return Result("SetConnectionHandler");
  }
  int SetMessageHandler(uint32_t type, MessageHandler handler) override {
    if (type == 8) QvrFake::Get().handler = std::move(handler);
    return Result("SetMessageHandler");
  }
  int Send(const qvr::Request& request, std::function<void(int error)> on_complete) override {
    QvrFake::Get().requests.push_back(request);
    const int error = Result("Send");
    if (error == 0) on_complete(0);
    return error;
  }
  int Call(const qvr::Request& request, std::chrono::milliseconds, int* response_error) override {
    QvrFake::Get().requests.push_back(request);
    *response_error = QvrFake::Get().response_error;
    return Result("Call");
  }
};

class InlineWorker : public qvr::Worker {
  void Post(std::function<void()> task) override { task(); }
};

}  // namespace

QvrFake& QvrFake::Get() {
  static auto* fake = new QvrFake;
  return *fake;
}

}  // namespace test

namespace qvr {

int InitClientManager() { return test::Result("InitClientManager"); }
void ReleaseClientManager() { test::Result("ReleaseClientManager"); }

int CreateTransportClient(int type, std::unique_ptr<TransportClient>* client) {
  const int error = test::Result("CreateTransportClient");
  if (type != 1) return kNotSupported;
  if (error == 0 && !test::QvrFake::Get().null_client) *client = std::make_unique<test::Client>();
  return error;
}

int CreateWorker(const std::string&, std::unique_ptr<Worker>* worker) {
  const int error = test::Result("CreateWorker");
  if (error == 0 && !test::QvrFake::Get().null_worker) {
    *worker = std::make_unique<test::InlineWorker>();
  }
  return error;
}

}  // namespace qvr
