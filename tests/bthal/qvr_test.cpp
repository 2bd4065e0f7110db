// The co-processor transport against a scripted message server on the real socket, alone and
// through the shim.
#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/qvr_server.h"
#include "bthal/uart_rig.h"
#include "chre/qvr_helper.h"
#include "support/vectors.h"
#include "transport_shim.h"

namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
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

constexpr char kTag[] = "bthal.qvrhelper";
const Bytes kReset = {0x03, 0x0C, 0x00};

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
  // Has one more packet come through, so that everything before it has been dealt with.
  std::vector<Received> PacketsUpToMarker() {
    const Bytes marker = {0x3E, 0x02, 0x7F, 0x7F};
    server_.SendMessage(test::QvrEvent(8, marker));
    const bool came = test::WaitFor([&] {
      const std::lock_guard<std::mutex> guard(lock_);
      return !received_.empty() && received_.back().packet == marker;
    });
    if (!came) throw std::runtime_error("the marker did not come");
    received_.pop_back();
    return std::exchange(received_, {});
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
  if (words[0] == "connect") return helper.PrepareQvrTransport();
  if (words[0] == "open" || words[0] == "close") return helper.UserialOpen(words[0] == "open");
  if (words[0] == "release") {
    helper.Deinitialize();
    return true;
  }
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
    if (v.fields[1] != "-") sent.push_back(v);
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

TEST_F(QvrTransport, Message_ReachesItsReceiverOrIsRefusedWithALine) {
  for (const test::Vector& v : test::LoadVectors("qvr_messages.txt")) {
    SCOPED_TRACE(v.name);
    lines_.Take(kTag);
    server_.SendMessage(test::ParseHex(v.fields[0]));
    const std::vector<Received> packets = PacketsUpToMarker();
    const std::string& outcome = v.fields[1];
    std::vector<std::string> lines, library;
    if (outcome == "malformed") {
      library = {"E Malformed QVR message."};
      lines = {"E qvr_message_handler: Failed to get qvr msg: err 5"};
    } else if (outcome.rfind("kind ", 0) == 0) {
      lines = {"E qvr_message_handler: Unimplemented packet type " + outcome.substr(5)};
    } else if (outcome == "no data") {
      lines = {"E hci_packet_handler: no task data."};
    }
    EXPECT_EQ(lines_.Take(kTag), lines);
    EXPECT_EQ(lines_.Take("QVR"), library);
    ASSERT_EQ(packets.size(), lines.empty() ? 1u : 0u);
    if (!lines.empty()) continue;
    EXPECT_EQ(packets[0].receiver, outcome);
    EXPECT_TRUE(packets[0].packet == test::ParseHex(v.fields[2]));
    EXPECT_EQ(packets[0].thread, "BtMsgHandler");
  }
}

TEST(QvrRequests, SucceedOrFailAsTheCoProcessorAnswers) {
  test::LogCapture log;
  QvrServer server(test::RootFolder());
  QvrHelper& helper = QvrHelper::Get();
  for (const test::Vector& v : test::LoadVectors("qvr_answers.txt")) {
    SCOPED_TRACE(v.name);
    const std::string& answer = v.fields[1];
    server.SetScript([&](const QvrRequest&) -> std::optional<uint32_t> {
      if (answer == "-") return std::nullopt;
      return std::stoul(answer);
    });
    const size_t asked = server.Requests().size();
    const auto start = steady_clock::now();
    EXPECT_EQ(Perform(helper, v.fields[0]), v.fields[2] == "yes");
    EXPECT_GE(steady_clock::now() - start, milliseconds(answer == "-" ? 800 : 0));
    EXPECT_EQ(helper.IsLpmEnabled(), v.fields[3] == "on");
    EXPECT_FALSE(helper.IsTransportOpen());
    // A packet is not waited for: the answer is this row's once the co-processor has it.
    if (v.name.rfind("packet", 0) == 0) server.WaitForRequests(asked + 1);
    if (v.fields[4] == "ANY") {
      log.Take(kTag);
      continue;
    }
    const std::vector<std::string> expected = test::SplitTrimmed(v.fields[4], ';');
    std::vector<std::string> lines;
    EXPECT_TRUE(test::WaitFor([&] {
      for (const std::string& line : log.Take(kTag)) lines.push_back(line);
      return lines.size() >= expected.size();
    }));
    ASSERT_EQ(lines.size(), expected.size()) << testing::PrintToString(lines);
    for (size_t i = 0; i < lines.size(); ++i) {
      EXPECT_TRUE(test::Matches(lines[i], expected[i])) << lines[i];
    }
  }
  helper.Deinitialize();
}

// --- through the shim ---

void Nothing(const hidl_vec<uint8_t>&) {}

// The property decides, whatever the configuration says (a UART, in this process).
class QvrShim : public testing::Test {
 protected:
  void SetUp() override { Select("true"); }
  void TearDown() override {
    shim::Deinitialize();
    Select("false");
  }
  static void Select(const char* value) {
    android::base::SetProperty("persist.bluetooth.ulk.path.enabled", value);
  }
  static bool Open(const PacketReceiver& receiver = Nothing) {
    return shim::InitializeHciHandle(receiver, receiver, receiver, receiver) != nullptr;
  }
  std::vector<std::string> Payloads(size_t count) {
    std::vector<std::string> payloads;
    for (const QvrRequest& request : server_.WaitForRequests(count)) {
      payloads.push_back(ToHex(request.payload));
    }
    return payloads;
  }
  void ExpectClosed() {
    EXPECT_TRUE(server_.WaitForConnection(false));
    EXPECT_FALSE(shim::IsInitialized());
    EXPECT_FALSE(shim::IsUserialReady());
    EXPECT_FALSE(QvrHelper::Get().IsLpmEnabled());
  }

  QvrServer server_{test::RootFolder()};
};

TEST_F(QvrShim, Open_CyclesThePowerAndCloseSwitchesItOff) {
  const auto start = steady_clock::now();
  ASSERT_TRUE(Open());
  EXPECT_GE(steady_clock::now() - start, milliseconds(50)) << "for the power to come up";
  EXPECT_EQ(shim::GetUserialType(), 2u);
  EXPECT_TRUE(shim::IsInitialized());
  EXPECT_FALSE(shim::IsUserialAutoInit());
  EXPECT_TRUE(shim::SupportBaudRateChange());
  EXPECT_EQ(shim::RequiredBaudRate(), 6000000u);
  EXPECT_FALSE(shim::IsLpmRunning());
  EXPECT_TRUE(shim::LpmSuspend());
  EXPECT_TRUE(shim::LpmWakeUp());
  EXPECT_TRUE(shim::LpmSetup());
  EXPECT_TRUE(shim::IsLpmRunning());
  EXPECT_TRUE(shim::GetTlDebugDump(-1, "", ""));
  EXPECT_EQ(shim::Send(1, kReset.data(), kReset.size(), true), kReset.size());
  shim::Deinitialize();
  EXPECT_THAT(Payloads(6),
              ElementsAre("00 01", "00 00", "01 00 18", "03", "01 01 03 0C 00", "00 01"));
  EXPECT_EQ(shim::GetUserialType(), 3u);
  ExpectClosed();
}

// The power-off before the power-on is only an attempt.
TEST_F(QvrShim, PowerOnRefused_UndoesTheOpening) {
  server_.SetScript([](const QvrRequest&) { return 12; });
  EXPECT_FALSE(Open());
  EXPECT_THAT(Payloads(2), ElementsAre("00 01", "00 00"));
  ExpectClosed();
  server_.SetScript(nullptr);
  EXPECT_TRUE(Open()) << "the next one succeeds";
}

// A stack that calls back from its own callback: "BtMsgHandler" closes what it runs on, while more
// packets wait; every other time while another thread closes, too, which may refuse it.
TEST_F(QvrShim, CloseFromInsideAReceiver_NeitherHangsNorDeliversMore) {
  uint32_t round = 0;
  test::ExpectNothingLeft("closings from inside a receiver", 40, [&] {
    const bool alone = ++round % 2 == 0;
    const uint32_t kind = 8 + round / 2 % 4;
    std::atomic<int> entered{0}, closed{0};
    ASSERT_TRUE(Open([&](const hidl_vec<uint8_t>&) {
      ++entered;
      shim::Deinitialize();
      ++closed;
    }));
    for (int n = 0; n < 3; ++n) server_.SendMessage(test::QvrEvent(kind, {0x13, 0x01, 0x00}));
    ASSERT_TRUE(test::WaitFor([&] { return !alone || closed > 0; }));
    shim::Deinitialize();
    ASSERT_TRUE(test::WaitFor([&] { return shim::GetUserialType() == 3 && entered == closed; }));
    const int delivered = entered;
    ASSERT_TRUE(server_.WaitForConnection(false));
    EXPECT_EQ(entered, delivered);
    if (alone) {
      EXPECT_EQ(delivered, 1);
    }
  });
}

}  // namespace
