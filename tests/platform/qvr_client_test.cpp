// The messaging library over its socket, against servers that misbehave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qvr/qvr_client.h>

#include <atomic>
#include <chrono>

#include "bthal/log_capture.h"
#include "bthal/qvr_server.h"
#include "platform/test_root.h"
#include "support/vectors.h"
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

TEST_F(QvrClient, BadDatagram_IsOneLineAndTheEndOfTheConnection) {
  std::atomic<int> handled{0};
  for (const test::Vector& v : test::LoadVectors("qvr_mistakes.txt")) {
    SCOPED_TRACE(v.name);
    const Bytes bytes = test::ParseHex(v.fields[0]);
    ASSERT_EQ(client_->SetMessageHandler(8, [&](const uint8_t*, size_t) { ++handled; }), 0);
    server_.SendDatagram(bytes);
    EXPECT_TRUE(Lost());
    Reconnect();
    const size_t seen = std::min<size_t>(bytes.size(), 192 * 1024);
    EXPECT_THAT(lines_.Take("qvr"),
                ElementsAre("E a malformed datagram of " + std::to_string(seen) +
                            " bytes from the co-processor"));
  }
  EXPECT_EQ(handled, 0);
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
  std::atomic<int> outcomes[3] = {{-1}, {-1}, {-1}};
  std::vector<QvrRequest> requests;
  for (auto& outcome : outcomes) {
    requests.push_back(SendOne([&](int error) { outcome = error; }));
  }
  // One of them twice, which nobody waits for any more.
  for (size_t i : {2, 0, 2}) server_.Answer(requests[i], static_cast<uint32_t>(10 + i));
  EXPECT_TRUE(test::WaitFor([&] { return outcomes[0] == 10 && outcomes[2] == 12; }));
  EXPECT_EQ(lost_, 0);
  EXPECT_THAT(lines_.Take("qvr"), IsEmpty());
  server_.SendDatagram(QvrServer::Datagram(test::kQvrResponse, requests[1].serial, 0, {}, {}));
  EXPECT_TRUE(Lost()) << "an answer of the wrong kind";
  EXPECT_TRUE(test::WaitFor([&] { return outcomes[1] == qvr::kServiceNotAvailable; }));
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

}  // namespace
