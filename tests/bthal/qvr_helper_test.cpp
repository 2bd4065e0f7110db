// The co-processor transport against a scripted message server on the real socket.
#include "chre/qvr_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/qvr_server.h"
#include "bthal/uart_rig.h"
#include "support/vectors.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::UartBaudRate;
using android::hardware::bluetooth::hci::PacketReceiver;
using android::hardware::bluetooth::hci::QvrHelper;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Bytes;
using test::QvrRequest;
using test::QvrServer;
using test::ToHex;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kTag[] = "bthal.qvrhelper";

struct Received {
  std::string receiver;
  Bytes packet;
  std::string thread;
};

// The helper, connected, with receivers that note what they get.
class QvrTransport : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(helper_.PrepareQvrTransport());
    helper_.InitializeCallback(Receiver("event"), Receiver("acl"), Receiver("sco"),
                               Receiver("iso"));
    lines_.Take(kTag);
  }
  void TearDown() override {
    helper_.DeinitializeCallback();
    helper_.Deinitialize();
    EXPECT_FALSE(helper_.IsTransportOpen());
    EXPECT_FALSE(helper_.IsLpmEnabled());
  }

  PacketReceiver Receiver(const std::string& name) {
    return [this, name](const hidl_vec<uint8_t>& packet) {
      char thread[16] = "";
      pthread_getname_np(pthread_self(), thread, sizeof thread);
      const std::lock_guard<std::mutex> guard(lock_);
      received_.push_back({name, test::ToBytes(packet), thread});
    };
  }
  std::vector<Received> WaitForPackets(size_t count) {
    test::WaitFor([&] {
      const std::lock_guard<std::mutex> guard(lock_);
      return received_.size() >= count;
    });
    const std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(received_, {});
  }
  // Has one more packet come through, so that everything before it has been dealt with.
  std::vector<Received> PacketsUpToMarker() {
    const Bytes marker = {0x3E, 0x02, 0x7F, 0x7F};
    server_.SendMessage(test::QvrEvent(8, marker));
    std::vector<Received> packets;
    while (packets.empty() || packets.back().packet != marker) {
      const std::vector<Received> more = WaitForPackets(1);
      if (more.empty()) throw std::runtime_error("the marker did not come");
      packets.insert(packets.end(), more.begin(), more.end());
    }
    packets.pop_back();
    return packets;
  }

  test::LogCapture lines_;
  QvrServer server_{test::RootFolder()};
  QvrHelper& helper_ = QvrHelper::Get();

 private:
  std::mutex lock_;
  std::vector<Received> received_;
};

// Does what an operation of the data says; true when it reports success.
bool Perform(QvrHelper& helper, const std::string& operation) {
  const std::vector<std::string> words = test::SplitTrimmed(operation, ' ');
  if (words[0] == "power") return helper.PowerControl(words[1] == "on");
  if (words[0] == "low_power") return helper.LpmEnable(words[1] == "on");
  if (words[0] == "dump") return helper.GetChreDebugDump();
  if (words[0] == "speed") {
    helper.BaudrateChange(static_cast<UartBaudRate>(std::stoul(words[1])));
    return true;
  }
  const std::string& flag = words[2];
  const Bytes packet = test::ParseHex(operation.substr(operation.find(flag) + flag.size()));
  return helper.SendHciToQvr(static_cast<uint8_t>(std::stoi(words[1])), packet.data(),
                             packet.size(), flag == "flow") == packet.size();
}

TEST_F(QvrTransport, EveryRequest_HasTheLiteralPayloadAndFieldsInOrder) {
  std::vector<test::Vector> sent;
  for (const test::Vector& v : test::LoadVectors("qvr_requests.txt")) {
    EXPECT_TRUE(Perform(helper_, v.fields[0])) << v.name;
    if (v.fields[1] == "-") {
      EXPECT_THAT(lines_.Take(kTag), ElementsAre("I BaudrateChange: Baud rate (" +
                                                 v.fields[0].substr(6) + ") unsupported"));
    } else {
      sent.push_back(v);
      lines_.Take(kTag);
    }
  }
  const std::vector<QvrRequest> requests = server_.WaitForRequests(sent.size());
  ASSERT_EQ(requests.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    SCOPED_TRACE(sent[i].name);
    const std::string& type = sent[i].fields[1];
    EXPECT_EQ(std::to_string(requests[i].message_type), type);
    EXPECT_EQ(requests[i].server_id, QvrServer::kServerId);
    EXPECT_EQ(requests[i].kind, type == "8" ? test::kQvrSend : test::kQvrCall);
    EXPECT_TRUE(requests[i].payload == test::ParseHex(sent[i].fields[2]))
        << ToHex(requests[i].payload).substr(0, 200);
  }
}

TEST_F(QvrTransport, DumpRequest_IsLoggedBeforeAndAfter) {
  EXPECT_TRUE(helper_.GetChreDebugDump());
  const std::string line = "I GetChreDebugDump send QvrMsgReqType_BT_DEBUG_DUMP msg";
  EXPECT_THAT(lines_.Take(kTag), ElementsAre(line, line + " Done"));
  server_.SetScript([](const QvrRequest&) { return 2; });
  EXPECT_FALSE(helper_.GetChreDebugDump());
  EXPECT_THAT(lines_.Take(kTag),
              ElementsAre(line,
                          "E GetChreDebugDump Attempt failed to deliver message to CHRE: "
                          "send err 0, resp err 2"));
}

TEST_F(QvrTransport, PowerOn_TakesFiftyMillisecondsAndPowerOffDoesNot) {
  const auto takes = [this](bool on) {
    const auto start = steady_clock::now();
    EXPECT_TRUE(helper_.PowerControl(on));
    return steady_clock::now() - start;
  };
  EXPECT_GE(takes(true), milliseconds(50));
  // A busy machine may hold up any one.
  EXPECT_TRUE(test::WaitFor([&] { return takes(false) < milliseconds(50); }));
}

TEST_F(QvrTransport, RequestAnsweredWithAnError_FailsWithOneLine) {
  const std::string failed = "Attempt failed to deliver message to CHRE: send err";
  const struct {
    const char* operation;
    std::string line;
  } cases[] = {
      {"power on", "E PowerControl " + failed + " 0, resp err "},
      {"power off", "E PowerControl " + failed + " 0, resp err "},
      {"low_power on", "E LpmEnable " + failed + " 0, resp err "},
      {"low_power off", "E LpmEnable " + failed + " 0, resp err "},
      {"speed 6000000", "E BaudrateChange: " + failed + ": 0, resp err: "},
  };
  for (const auto& c : cases) {
    for (uint32_t error : {1u, 16u, 20u}) {
      SCOPED_TRACE(c.operation);
      server_.SetScript([error](const QvrRequest&) { return error; });
      const bool reports = std::string(c.operation).rfind("speed", 0) != 0;
      EXPECT_EQ(Perform(helper_, c.operation), !reports);
      EXPECT_THAT(lines_.Take(kTag), ElementsAre(c.line + std::to_string(error)));
    }
  }
}

TEST_F(QvrTransport, LowPowerFlag_FollowsWhatTheCoProcessorHasDone) {
  EXPECT_FALSE(helper_.IsLpmEnabled());
  EXPECT_TRUE(helper_.LpmEnable(true));
  EXPECT_TRUE(helper_.IsLpmEnabled());
  server_.SetScript([](const QvrRequest&) { return 14; });
  EXPECT_FALSE(helper_.LpmEnable(false));
  EXPECT_TRUE(helper_.IsLpmEnabled());
  server_.SetScript(nullptr);
  EXPECT_TRUE(helper_.LpmEnable(false));
  EXPECT_FALSE(helper_.IsLpmEnabled());
  server_.SetScript([](const QvrRequest&) { return 14; });
  EXPECT_FALSE(helper_.LpmEnable(true));
  EXPECT_FALSE(helper_.IsLpmEnabled());
}

// The answer that comes too late is for the request before: the next one waits for its own.
TEST_F(QvrTransport, RequestWithoutAnAnswer_FailsAfter800MillisecondsAndALateOneIsDropped) {
  server_.SetScript([](const QvrRequest&) { return std::nullopt; });
  const auto start = steady_clock::now();
  EXPECT_FALSE(helper_.PowerControl(false));
  const auto taken = steady_clock::now() - start;
  EXPECT_GE(taken, milliseconds(800));
  EXPECT_LT(taken, std::chrono::seconds(5));
  EXPECT_THAT(lines_.Take(kTag),
              ElementsAre("E PowerControl Attempt failed to deliver message to CHRE: send err 0, "
                          "resp err 16"));
  const std::vector<QvrRequest> unanswered = server_.Requests();
  ASSERT_EQ(unanswered.size(), 1u);
  server_.SetScript([&](const QvrRequest&) {
    server_.Answer(unanswered[0], 0);
    return 9;
  });
  EXPECT_FALSE(helper_.PowerControl(false)) << "the late answer was taken for this request's";
  EXPECT_THAT(lines_.Take(kTag),
              ElementsAre("E PowerControl Attempt failed to deliver message to CHRE: send err 0, "
                          "resp err 9"));
}

TEST_F(QvrTransport, PacketThatTheCoProcessorRefuses_IsOneErrorLineAndTheNextGoesOut) {
  std::atomic<int> seen{0};
  server_.SetScript([&](const QvrRequest&) { return seen++ == 0 ? 17 : 0; });
  const Bytes reset = {0x03, 0x0C, 0x00};
  EXPECT_EQ(helper_.SendHciToQvr(1, reset.data(), reset.size(), true), reset.size());
  EXPECT_EQ(helper_.SendHciToQvr(1, reset.data(), reset.size(), true), reset.size());
  EXPECT_EQ(server_.WaitForRequests(2).size(), 2u);
  EXPECT_TRUE(helper_.PowerControl(false)) << "what came before has been answered";
  const std::vector<std::string> lines = lines_.Take(kTag);
  ASSERT_EQ(lines.size(), 1u) << testing::PrintToString(lines);
  EXPECT_THAT(lines[0], testing::StartsWith("E SendHciToQvr: "));
  EXPECT_THAT(lines[0], testing::HasSubstr("17"));
}

TEST_F(QvrTransport, PacketsFromManyThreads_ArriveWholeAndInTheOrderOfEachThread) {
  const int each = test::Count("packets of each of four threads", 5000);
  std::vector<std::thread> threads;
  for (uint8_t t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, each] {
      for (int i = 0; i < each; ++i) {
        Bytes packet = {t, static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8)};
        packet.resize(3 + static_cast<size_t>(i % 1000), t);
        if (helper_.SendHciToQvr(2, packet.data(), packet.size(), false) != packet.size()) return;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto total = static_cast<size_t>(4 * each);
  const std::vector<QvrRequest> requests = server_.WaitForRequests(total);
  ASSERT_EQ(requests.size(), total);
  int next[4] = {};
  for (const QvrRequest& request : requests) {
    ASSERT_GE(request.payload.size(), 5u);
    const uint8_t t = request.payload[2];
    const int number = request.payload[3] | request.payload[4] << 8;
    ASSERT_LT(t, 4);
    ASSERT_EQ(number, next[t]++);
    ASSERT_EQ(request.payload.size(), 5u + static_cast<size_t>(number % 1000));
  }
}

TEST_F(QvrTransport, Message_ReachesItsReceiverOrIsRefusedWithALine) {
  for (const test::Vector& v : test::LoadVectors("qvr_messages.txt")) {
    SCOPED_TRACE(v.name);
    lines_.Take(kTag);
    lines_.Take("QVR");
    server_.SendMessage(test::ParseHex(v.fields[0]));
    const std::vector<Received> packets = PacketsUpToMarker();
    const std::vector<std::string> lines = lines_.Take(kTag), library = lines_.Take("QVR");
    const std::string& outcome = v.fields[1];
    if (outcome == "malformed") {
      EXPECT_THAT(library, ElementsAre("E Malformed QVR message."));
      EXPECT_THAT(lines, ElementsAre("E qvr_message_handler: Failed to get qvr msg: err 5"));
    } else {
      EXPECT_THAT(library, IsEmpty());
    }
    if (outcome.rfind("kind ", 0) == 0) {
      EXPECT_THAT(lines, ElementsAre("E qvr_message_handler: Unimplemented packet type " +
                                     outcome.substr(5)));
    } else if (outcome == "no data") {
      EXPECT_THAT(lines, ElementsAre("E hci_packet_handler: no task data."));
    } else if (outcome != "malformed") {
      EXPECT_THAT(lines, IsEmpty());
      ASSERT_EQ(packets.size(), 1u);
      EXPECT_EQ(packets[0].receiver, outcome);
      EXPECT_TRUE(packets[0].packet == test::ParseHex(v.fields[2]));
      EXPECT_EQ(packets[0].thread, "BtMsgHandler");
      continue;
    }
    EXPECT_EQ(packets.size(), 0u);
  }
}

TEST_F(QvrTransport, OtherMessageTypesAndNoReceiver_DisturbNothing) {
  server_.SendMessage(test::QvrEvent(8, {0x0E, 0x00}), 7);
  server_.SendMessage(test::QvrEvent(8, {0x0E, 0x00}), 36);
  EXPECT_THAT(PacketsUpToMarker(), IsEmpty());
  EXPECT_THAT(lines_.Take(kTag), IsEmpty());
  helper_.DeinitializeCallback();
  helper_.InitializeCallback(Receiver("event"), nullptr, nullptr, nullptr);
  lines_.Take(kTag);
  for (uint32_t kind : {9u, 10u, 11u}) server_.SendMessage(test::QvrEvent(kind, {1, 2, 3, 4}));
  EXPECT_THAT(PacketsUpToMarker(), IsEmpty());
  const std::string line = "E hci_packet_handler: no callback.";
  EXPECT_THAT(lines_.Take(kTag), ElementsAre(line, line, line));
}

TEST_F(QvrTransport, AfterTheReceiversAreGone_NothingIsDelivered) {
  helper_.DeinitializeCallback();
  for (int i = 0; i < 100; ++i) server_.SendMessage(test::QvrEvent(8, {0x0E, 0x00}));
  EXPECT_TRUE(helper_.PowerControl(false)) << "whose answer comes behind them";
  helper_.InitializeCallback(Receiver("event"), nullptr, nullptr, nullptr);
  EXPECT_THAT(PacketsUpToMarker(), IsEmpty());
}

// Closed, it refuses everything with the same line.
TEST(QvrTransportClosed, EveryOperation_IsRefusedWithALine) {
  test::LogCapture lines;
  QvrHelper& helper = QvrHelper::Get();
  const struct {
    const char* operation;
    const char* name;
    bool result;
  } cases[] = {{"power on", "PowerControl", false},
               {"power off", "PowerControl", false},
               {"low_power on", "LpmEnable", false},
               {"speed 3000000", "BaudrateChange", true},
               {"packet 1 flow 03 0C 00", "SendHciToQvr", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(Perform(helper, c.operation), c.result);
    EXPECT_THAT(lines.Take(kTag),
                ElementsAre(std::string("E ") + c.name + "QVR transport is not ready."));
  }
  EXPECT_FALSE(helper.GetChreDebugDump());
  EXPECT_THAT(lines.Take(kTag), ElementsAre("E GetChreDebugDumpQVR transport is not ready."));
  for (bool open : {true, false}) {
    EXPECT_FALSE(helper.UserialOpen(open));
    EXPECT_FALSE(helper.IsTransportOpen());
    EXPECT_THAT(lines.Take(kTag), ElementsAre("E UserialOpenQVR transport is not ready."));
  }
}

}  // namespace
