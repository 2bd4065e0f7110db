// The messaging library over its socket, against servers that misbehave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <qvr/qvr_client.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bthal/log_capture.h"
#include "bthal/qvr_server.h"
#include "platform/test_root.h"
#include "support/child_process.h"
#include "support/wait.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Bytes;
using test::QvrRequest;
using test::QvrServer;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kTable =
    test::ParseHex("0C 00 00 00 08 00 0C 00 04 00 08 00 08 00 00 00 08 00 00 00 D4 C3 B2 A1");

class QvrClient : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(qvr::CreateTransportClient(1, &client_), 0);
    Connect();
  }
  void Connect() {
    ASSERT_EQ(client_->Connect(), 0);
    ASSERT_TRUE(server_.WaitForConnection(true));
    lost_ = 0;
    ASSERT_EQ(client_->SetConnectionHandler([this] { ++lost_; }), 0);
  }
  void Reconnect() {
    client_.reset();
    ASSERT_TRUE(server_.WaitForConnection(false));
    ASSERT_EQ(qvr::CreateTransportClient(1, &client_), 0);
    Connect();
  }
  // Sends and waits until the server has the request.
  QvrRequest SendOne(const std::function<void(int)>& on_complete) {
    const size_t before = server_.Requests().size();
    EXPECT_EQ(client_->Send({kTable, {}}, on_complete), 0);
    return server_.WaitForRequests(before + 1).at(before);
  }
  bool Lost() {
    return test::WaitFor([this] { return lost_ > 0; });
  }

  test::LogCapture lines_;
  QvrServer server_{test::RootFolder()};
  std::unique_ptr<qvr::TransportClient> client_;
  std::atomic<int> lost_{0};
};

Bytes Zeros(size_t count) { return Bytes(count, 0); }

TEST_F(QvrClient, BadDatagram_IsOneLineAndTheEndOfTheConnection) {
  const auto datagram = [](uint32_t kind, uint32_t table_bytes, size_t body) {
    Bytes bytes = QvrServer::Datagram(kind, 0, 8, {}, {});
    for (size_t i = 0; i < 4; ++i) bytes[12 + i] = static_cast<uint8_t>(table_bytes >> (8 * i));
    return test::Concat(bytes, Zeros(body));
  };
  // Kind, then how many bytes behind the header are said to be the table, then how many there are.
  std::vector<Bytes> datagrams = {Zeros(1),
                                  Zeros(15),
                                  Zeros(16),
                                  datagram(7, 1, 0),
                                  datagram(7, 0xFFFFFFFF, 28),
                                  datagram(7, 29, 28),
                                  datagram(7, 28, 192 * 1024)};
  for (const uint32_t kind : {0u, 1u, 3u, 5u, 8u, 0xFFFFFFFFu}) {
    datagrams.push_back(datagram(kind, 0, 4));
  }
  for (const Bytes& bytes : datagrams) {
    SCOPED_TRACE(bytes.size());
    std::atomic<int> handled{0};
    ASSERT_EQ(client_->SetMessageHandler(8, [&](const uint8_t*, size_t) { ++handled; }), 0);
    server_.SendDatagram(bytes);
    EXPECT_TRUE(Lost());
    Reconnect();
    EXPECT_EQ(handled, 0);
    const size_t seen = std::min<size_t>(bytes.size(), 192 * 1024);
    EXPECT_THAT(lines_.Take("qvr"),
                ElementsAre("E a malformed datagram of " + std::to_string(seen) +
                            " bytes from the co-processor"));
  }
}

TEST_F(QvrClient, LongestMessages_PassBothWaysAndALongerOneIsRefused) {
  std::vector<Bytes> tables;
  std::atomic<int> handled{0}, outcome{-1};
  client_->SetMessageHandler(8, [&](const uint8_t* table, size_t size) {
    tables.emplace_back(table, table + size);
    ++handled;
  });
  const Bytes longest(192 * 1024 - 16, 0xA5);
  server_.SendMessage(longest);
  server_.SendMessage({});
  ASSERT_TRUE(test::WaitFor([&] { return handled == 2; }));
  EXPECT_TRUE(tables[0] == longest);
  EXPECT_TRUE(tables[1].empty());

  const Bytes fits(longest.size() - kTable.size(), 0x5A);
  EXPECT_EQ(client_->Send({kTable, test::Concat(fits, {1})}, [&](int) { outcome = 99; }),
            qvr::kValueTooBig);
  EXPECT_EQ(client_->Send({kTable, fits}, [&](int error) { outcome = error; }), 0);
  EXPECT_TRUE(test::WaitFor([&] { return outcome == 0; }));
  ASSERT_EQ(server_.Requests().size(), 1u);
  EXPECT_TRUE(server_.Requests()[0].payload == fits);
}

TEST_F(QvrClient, AnswersInAnyOrder_GoToTheirQuestions) {
  server_.SetScript([](const QvrRequest&) { return std::nullopt; });
  std::atomic<int> outcomes[3];
  for (std::atomic<int>& outcome : outcomes) outcome = -1;
  std::vector<QvrRequest> requests;
  for (auto& outcome : outcomes) {
    requests.push_back(SendOne([&](int error) { outcome = error; }));
  }
  // And what nobody has asked for, or not any more.
  QvrRequest stranger = requests[0];
  stranger.serial = 0xFFFFFFF0;
  server_.Answer(stranger, 1);
  for (size_t i : {2, 0, 2, 1, 0}) server_.Answer(requests[i], static_cast<uint32_t>(10 + i));
  EXPECT_TRUE(test::WaitFor([&] { return outcomes[1] != -1; }));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(outcomes[i], 10 + i);
  EXPECT_EQ(lost_, 0);
  EXPECT_THAT(lines_.Take("qvr"), IsEmpty());

  const QvrRequest last = SendOne([&](int error) { outcomes[0] = error; });
  server_.SendDatagram(QvrServer::Datagram(test::kQvrResponse, last.serial, 0, {}, {}));
  EXPECT_TRUE(Lost()) << "an answer of the wrong kind";
  EXPECT_TRUE(test::WaitFor([&] { return outcomes[0] == qvr::kServiceNotAvailable; }));
  EXPECT_EQ(lines_.Take("qvr").size(), 1u);
}

TEST_F(QvrClient, Find_TellsTheNumberOrWhatIsWrong) {
  uint32_t id = 0;
  EXPECT_EQ(client_->FindServer("any", &id), 0);
  EXPECT_EQ(id, QvrServer::kServerId);
  server_.SetFindError(7);
  EXPECT_EQ(client_->FindServer("any", &id), 7);
  server_.SetFindError(std::nullopt);
  const auto start = steady_clock::now();
  EXPECT_EQ(client_->FindServer("any", &id), qvr::kOperationTimedOut);
  EXPECT_GE(steady_clock::now() - start, milliseconds(800));
  // The fourth question; its answer comes again and again, until it comes behind that.
  std::atomic<int> outcome{-1};
  std::thread finder([&] { outcome = client_->FindServer("any", &id); });
  EXPECT_TRUE(test::WaitFor([&] {
    server_.SendDatagram(QvrServer::Datagram(test::kQvrFound, 4, 0, {}, {1, 2, 3, 4, 5}));
    return outcome != -1;
  }));
  finder.join();
  EXPECT_EQ(outcome, qvr::kBuffer) << "five bytes are no number";
}

TEST_F(QvrClient, ServerThatDoesNotRead_HoldsASendUpForASecondAtMost) {
  std::atomic<bool> stuck{true};
  server_.SetScript([&](const QvrRequest&) {
    test::WaitFor([&] { return !stuck; });
    return 0;
  });
  int error = 0;
  steady_clock::duration taken{};
  for (int i = 0; error == 0 && i < 10000; ++i) {
    const auto start = steady_clock::now();
    error = client_->Send({kTable, Bytes(60000, 0x5A)}, [](int) {});
    taken = steady_clock::now() - start;
  }
  EXPECT_EQ(error, qvr::kOperationTimedOut);
  EXPECT_GE(taken, milliseconds(1000));
  stuck = false;
  std::atomic<int> outcome{-1};
  EXPECT_EQ(client_->Send({kTable, {}}, [&](int completed) { outcome = completed; }), 0);
  EXPECT_TRUE(test::WaitFor([&] { return outcome == 0; })) << "the connection still works";
}

TEST_F(QvrClient, OnALostConnection_EverythingEndsAtOnce) {
  server_.SetScript([](const QvrRequest&) { return std::nullopt; });
  std::atomic<int> outcome{-1};
  SendOne([&](int error) {
    EXPECT_EQ(lost_, 1) << "the loss is told first";
    outcome = error;
  });
  server_.Disconnect();
  EXPECT_TRUE(test::WaitFor([&] { return outcome != -1; }));
  EXPECT_EQ(outcome, qvr::kServiceNotAvailable);
  int late = -1, response = -1;
  EXPECT_EQ(client_->Send({kTable, {}}, [&](int error) { late = error; }), 0);
  EXPECT_EQ(late, qvr::kServiceNotAvailable);
  const auto start = steady_clock::now();
  EXPECT_EQ(client_->Call({kTable, {}}, std::chrono::seconds(20), &response), 0);
  EXPECT_EQ(response, qvr::kServiceNotAvailable);
  uint32_t id = 0;
  EXPECT_EQ(client_->FindServer("any", &id), qvr::kServiceNotAvailable);
  EXPECT_EQ(client_->SetConnectionHandler([] {}), qvr::kServiceNotAvailable);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(lost_, 1);
}

// Whichever handler destroys the client: no deadlock, no thread left, nothing runs after it.
TEST_F(QvrClient, DestroyedByItsOwnHandler_EndsAfterIt) {
  const int threads = test::CountThreads(getpid());
  const int rounds = test::Count("clients destroyed by a handler", 60);
  for (int i = 0; i < rounds; ++i) {
    std::atomic<int> runs{0};
    const auto destroy = [&] {
      client_.reset();
      ++runs;
    };
    server_.SetScript([](const QvrRequest&) { return std::nullopt; });
    switch (i % 3) {
      case 0:
        client_->SetMessageHandler(8, [&](const uint8_t*, size_t) { destroy(); });
        for (int n = 0; n < 3; ++n) server_.SendMessage({1});
        break;
      case 1: {
        const QvrRequest first = SendOne([&](int) { destroy(); });
        const QvrRequest second = SendOne([&](int) { ++runs; });
        server_.Answer(first, 0);
        server_.Answer(second, 0);
        break;
      }
      default:
        client_->SetConnectionHandler(destroy);
        SendOne([&](int) { ++runs; });
        server_.Disconnect();
    }
    ASSERT_TRUE(test::WaitFor([&] { return runs > 0; }));
    ASSERT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) < threads; }));
    ASSERT_EQ(runs, 1);
    Reconnect();
  }
}

TEST_F(QvrClient, MessageHandlerThatIsReplaced_HasEndedByThen) {
  const int rounds = test::Count("message handlers replaced", 300);
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop) server_.SendMessage({1});
  });
  for (int i = 0; i < rounds; ++i) {
    auto alive = std::make_unique<std::atomic<int>>(1);
    std::atomic<int> handled{0};
    client_->SetMessageHandler(8, [&, value = alive.get()](const uint8_t*, size_t) {
      handled += *value;
      std::this_thread::yield();
      handled += *value;
    });
    if (i % 2 == 0) {
      ASSERT_TRUE(test::WaitFor([&] { return handled > 0; }));
    }
    client_->SetMessageHandler(8, nullptr);
    alive.reset();
  }
  stop = true;
  sender.join();
  EXPECT_EQ(lost_, 0);
}

TEST(QvrWorker, Tasks_RunInOrderOnTheNamedThreadAndMayEndIt) {
  std::unique_ptr<qvr::Worker> worker;
  std::thread([] {}).join();  // with the first thread comes one of a sanitizer's own
  const int threads = test::CountThreads(getpid());
  ASSERT_EQ(qvr::CreateWorker("worker_of_test1", &worker), 0);
  std::atomic<int> done{0};
  for (int i = 0; i < 1000; ++i) worker->Post([&, i] { EXPECT_EQ(done++, i); });
  // On its own thread: what has not begun is dropped.
  worker->Post([&] {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "worker_of_test1");
    for (int i = 0; i < 10; ++i) worker->Post([&] { ++done; });
    worker.reset();
    ++done;
  });
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
  EXPECT_EQ(done, 1001);
}

}  // namespace
