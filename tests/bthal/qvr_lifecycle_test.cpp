// Opening, closing and losing the co-processor transport, through the shim where a user would.
#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/qvr_server.h"
#include "bthal/report_check.h"
#include "bthal/scripted_controller.h"
#include "bthal/uart_rig.h"
#include "btzvk_protocol.h"
#include "chre/qvr_helper.h"
#include "transport_shim.h"

namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
using android::hardware::bluetooth::BtZvkProtocol;
using android::hardware::bluetooth::hci::QvrHelper;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Bytes;
using test::QvrRequest;
using test::QvrServer;
using testing::ElementsAre;

constexpr char kPathProperty[] = "persist.bluetooth.ulk.path.enabled";
const Bytes kReset = {0x03, 0x0C, 0x00};

// Sends the transport of this process through the co-processor.
class CoProcessorSelected {
 public:
  CoProcessorSelected() { android::base::SetProperty(kPathProperty, "true"); }
  ~CoProcessorSelected() { android::base::SetProperty(kPathProperty, "false"); }
};

void Nothing(const hidl_vec<uint8_t>&) {}

std::shared_ptr<android::hardware::bluetooth::hci::HciFlowControl> Open() {
  return shim::InitializeHciHandle(Nothing, Nothing, Nothing, Nothing);
}

std::vector<std::string> Payloads(const std::vector<QvrRequest>& requests) {
  std::vector<std::string> payloads;
  for (const QvrRequest& request : requests) payloads.push_back(test::ToHex(request.payload));
  return payloads;
}

size_t CountLines(const std::vector<std::string>& lines, const std::string& text) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
}

// The property decides, whatever the configuration says (a UART, in this process).
TEST(QvrLifecycle, ShimOpen_CyclesThePowerAndCloseSwitchesItOff) {
  const CoProcessorSelected selected;
  QvrServer server(test::RootFolder());
  ASSERT_NE(Open(), nullptr);
  EXPECT_THAT(Payloads(server.Requests()), ElementsAre("00 01", "00 00"));
  EXPECT_EQ(shim::GetUserialType(), 2u);
  EXPECT_TRUE(shim::IsUserialReady());
  EXPECT_TRUE(shim::IsInitialized());
  EXPECT_FALSE(shim::IsUserialAutoInit());
  EXPECT_TRUE(shim::SupportBaudRateChange());
  EXPECT_EQ(shim::RequiredBaudRate(), 6000000u);
  EXPECT_FALSE(shim::IsLpmRunning());
  EXPECT_TRUE(shim::LpmSuspend());
  EXPECT_TRUE(shim::LpmWakeUp());
  EXPECT_TRUE(shim::LpmSetup());
  EXPECT_TRUE(shim::IsLpmRunning());
  shim::LpmTeardown();
  EXPECT_FALSE(shim::IsLpmRunning());
  EXPECT_TRUE(shim::GetTlDebugDump(-1, "", ""));
  EXPECT_EQ(shim::Send(1, kReset.data(), kReset.size(), true), kReset.size());
  shim::Deinitialize();
  EXPECT_THAT(
      Payloads(server.WaitForRequests(7)),
      ElementsAre("00 01", "00 00", "01 00 18", "01 01 00", "03", "01 01 03 0C 00", "00 01"));
  EXPECT_TRUE(server.WaitForConnection(false));
  EXPECT_EQ(shim::GetUserialType(), 3u);
  EXPECT_FALSE(shim::IsInitialized());
  EXPECT_FALSE(shim::IsUserialReady());
}

// The power-off before it is only an attempt.
TEST(QvrLifecycle, PowerOnRefused_UndoesTheOpening) {
  const CoProcessorSelected selected;
  QvrServer server(test::RootFolder());
  const int threads = test::CountThreads(getpid());
  server.SetScript([](const QvrRequest&) { return 12; });
  EXPECT_EQ(Open(), nullptr);
  EXPECT_THAT(Payloads(server.Requests()), ElementsAre("00 01", "00 00"));
  EXPECT_TRUE(server.WaitForConnection(false));
  EXPECT_FALSE(shim::IsInitialized());
  EXPECT_FALSE(shim::IsUserialReady());
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
  server.SetScript(nullptr);
  EXPECT_NE(Open(), nullptr) << "the next one succeeds";
  shim::Deinitialize();
}

// While it is not open for packets yet, a lost connection fails what runs, and no more.
TEST(QvrLifecycle, ConnectionLostWhilePowering_FailsTheOpeningOnly) {
  const CoProcessorSelected selected;
  test::LogCapture lines;
  QvrServer server(test::RootFolder());
  server.SetScript([&](const QvrRequest& request) -> std::optional<uint32_t> {
    if (test::ToHex(request.payload) == "00 01") return 0;
    server.Disconnect();
    return std::nullopt;
  });
  EXPECT_EQ(Open(), nullptr);
  const std::vector<std::string> logged = lines.Take("bthal.qvrhelper");
  EXPECT_EQ(CountLines(logged,
                       "E handle_qvr_connection_event: QVR transport disconnected from "
                       "ULK...exiting"),
            1u);
  EXPECT_EQ(CountLines(logged,
                       "E PowerControl Attempt failed to deliver message to CHRE: send err 0, "
                       "resp err 11"),
            1u)
      << testing::PrintToString(logged);
}

TEST(QvrLifecycle, OpenAndCloseManyTimes_LeavesNothing) {
  QvrServer server(test::RootFolder());
  QvrHelper& helper = QvrHelper::Get();
  const int threads = test::CountThreads(getpid());
  const int descriptors = test::CountDescriptors(getpid());
  const int rounds = test::Count("openings of the co-processor transport", 200);
  for (int i = 0; i < rounds; ++i) {
    std::atomic<int> received{0};
    const auto count = [&](const hidl_vec<uint8_t>&) { ++received; };
    ASSERT_TRUE(helper.PrepareQvrTransport());
    helper.InitializeCallback(count, count, count, count);
    ASSERT_TRUE(helper.UserialOpen(true));
    for (uint32_t kind = 8; kind < 12; ++kind) server.SendMessage(test::QvrEvent(kind, {1, 2, 3}));
    ASSERT_EQ(helper.SendHciToQvr(1, kReset.data(), kReset.size(), true), kReset.size());
    if (i % 2 == 0) {
      ASSERT_TRUE(test::WaitFor([&] { return received == 4; }));
    }
    helper.DeinitializeCallback();
    ASSERT_TRUE(helper.UserialOpen(false));
    helper.Deinitialize();
    ASSERT_TRUE(server.WaitForConnection(false));
  }
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
  EXPECT_TRUE(test::WaitFor([&] { return test::CountDescriptors(getpid()) <= descriptors; }));
}

// A stack that calls back from its own callback: "BtMsgHandler" closes what it runs on, while more
// packets wait, and every other time while another thread closes, too.
TEST(QvrLifecycle, CloseFromInsideAReceiver_NeitherHangsNorDeliversMore) {
  const CoProcessorSelected selected;
  QvrServer server(test::RootFolder());
  const int threads = test::CountThreads(getpid());
  const int rounds = test::Count("closings from inside a receiver", 40);
  for (int i = 0; i < rounds; ++i) {
    const uint32_t kind = 8 + static_cast<uint32_t>(i / 2 % 4);
    std::atomic<int> entered{0}, closed{0};
    const auto close = [&](const hidl_vec<uint8_t>&) {
      ++entered;
      shim::Deinitialize();
      ++closed;
    };
    ASSERT_NE(shim::InitializeHciHandle(close, close, close, close), nullptr);
    for (int n = 0; n < 3; ++n) server.SendMessage(test::QvrEvent(kind, {0x13, 0x01, 0x00}));
    if (i % 2 == 0) {
      ASSERT_TRUE(test::WaitFor([&] { return entered > 0; }));
    }
    shim::Deinitialize();
    ASSERT_TRUE(test::WaitFor([] { return shim::GetUserialType() == 3; }));
    // Back when nothing of this round runs any more.
    ASSERT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) <= threads; }));
    ASSERT_EQ(entered, closed);
    ASSERT_LE(closed, 1);
    ASSERT_TRUE(server.WaitForConnection(false));
  }
}

// What it sends before the service is ready for it is dropped, with a line at most.
TEST(QvrLifecycle, ServerThatStreamsFromTheStart_IsNoTrouble) {
  const CoProcessorSelected selected;
  QvrServer server(test::RootFolder());
  std::atomic<bool> stop{false};
  std::thread stream([&] {
    while (!stop) server.SendMessage(test::QvrEvent(8, {0x13, 0x01, 0x00}));
  });
  for (int i = 0; i < 20; ++i) {
    std::atomic<int> received{0};
    const auto count = [&](const hidl_vec<uint8_t>&) { ++received; };
    ASSERT_NE(shim::InitializeHciHandle(count, count, count, count), nullptr);
    EXPECT_TRUE(test::WaitFor([&] { return received > 0; }));
    shim::Deinitialize();
  }
  stop = true;
  stream.join();
}

// The server comes up while the service is trying.
TEST(QvrLifecycle, ServerThatComesLate_IsFoundByALaterAttempt) {
  std::filesystem::remove(test::RootFolder() + "/run/qvr/transport");
  test::LogCapture lines;
  bool prepared = false;
  std::thread opener([&] { prepared = QvrHelper::Get().PrepareQvrTransport(); });
  std::vector<std::string> logged;
  const std::string failed =
      "E InitQvrTransport: Failed to connect to QVR transport server: err 11";
  const auto collect = [&] {
    const std::vector<std::string> more = lines.Take("bthal.qvrhelper");
    logged.insert(logged.end(), more.begin(), more.end());
  };
  EXPECT_TRUE(test::WaitFor([&] {
    collect();
    return CountLines(logged, failed) == 2;
  }));
  QvrServer server(test::RootFolder());
  opener.join();
  EXPECT_TRUE(prepared);
  collect();
  const size_t failures = CountLines(logged, failed);
  EXPECT_LE(failures, 3u) << "a third one may have been under way";
  EXPECT_EQ(CountLines(logged,
                       "I PrepareQvrTransport: return ret (1), count:" + std::to_string(failures)),
            1u)
      << testing::PrintToString(logged);
  QvrHelper::Get().Deinitialize();
}

CHILD_CASE(QvrPrepare) {
  test::PrintReports();
  QvrHelper::Get().PrepareQvrTransport();
  return 0;
}

// Ten times five attempts: 50 ms after each of the five, 100 ms after each of the ten.
TEST(QvrLifecycle, NobodyThere_EndsTheProcessAfterAllAttempts) {
  test::ReportRoot absent, refusing;
  QvrServer::LeaveRefusingSocket(refusing.path());
  const auto start = steady_clock::now();
  const test::ReportRoot* roots[] = {&absent, &refusing};
  const auto prepare = [&](size_t i) { return test::StartChild("QvrPrepare", roots[i]->path()); };
  test::RunSideBySide(2, prepare, [&](size_t i, const test::ChildRun& run) {
    EXPECT_GE(steady_clock::now() - start, milliseconds(3500));
    const std::string failed = "Prepare CHRE QVR transport failed!";
    const std::string error =
        "InitQvrTransport: Failed to connect to QVR transport server: err 11\n";
    EXPECT_EQ(test::CountOf(" " + error, run.output), 10u);
    const std::string core = test::ExpectReport(192, failed, run, *roots[i]);
    EXPECT_EQ(test::CountOf(": " + error, core), 10u) << "the records";
    EXPECT_EQ(test::CountOf(" PrepareQvrTransport: return ret (0), count:10\n", run.output), 1u);
    EXPECT_EQ(test::CountOf(" PrepareQvrTransport: " + failed + "\n", run.output), 1u);
  });
}

// The connection ends at a moment: "idle"; "transfer", while packets go both ways; "bring_up N",
// instead of an answer to the Nth packet of a bring-up; "control N", instead of an answer to the
// control request that begins with the byte N.
CHILD_CASE(QvrLoss) {
  test::PrintReports();
  QvrServer server(test::RootFolder());
  const std::string& moment = arguments[0];
  const int argument = arguments.size() > 1 ? std::stoi(arguments[1]) : 0;
  std::atomic<bool> open{false};
  std::atomic<int> packets{0};
  server.SetScript([&](const QvrRequest& request) -> std::optional<uint32_t> {
    const bool control = request.message_type == 36;
    if (control ? open && moment == "control" && request.payload[0] == argument
                : ++packets == argument && moment == "bring_up") {
      server.Disconnect();
      return std::nullopt;
    }
    if (control) return 0;
    server.Answer(request, 0);
    if (moment == "transfer") {
      server.SendMessage(test::QvrEvent(9, Bytes(100, 0x5A)));
      return std::nullopt;
    }
    const Bytes command(request.payload.begin() + 2, request.payload.end());
    const bool chip_id = command[0] == 0x79 && command[1] == 0xFC;
    server.SendMessage(test::QvrEvent(
        8, test::ScriptedController::Complete(command, 0, chip_id ? Bytes{0x99} : Bytes{})));
    return std::nullopt;
  });
  const auto flow = Open();
  if (flow == nullptr) return 1;
  open = true;
  if (moment == "bring_up" || moment == "control") {
    if (!BtZvkProtocol::GetInstacne()->Initialize(flow.get())) return 2;
    printf("ready after %d packets\n", packets.load());
    BtZvkProtocol::GetInstacne()->Shutdown();
    shim::GetTlDebugDump(-1, "", "");
  }
  if (moment == "bring_up") {
    shim::Deinitialize();
    return 0;
  }
  if (moment == "transfer") {
    static std::atomic<int> sent{0};
    for (int i = 0; i < 4; ++i) {
      std::thread([&] {
        const Bytes data(1000, 0xA5);
        for (;;) {
          // So that a slow machine's server is not taken for a dead one.
          while (sent - packets > 100) std::this_thread::yield();
          ++sent;
          shim::Send(2, data.data(), data.size(), false);
        }
      }).detach();
    }
    server.WaitForRequests(1000);
  }
  if (moment != "control") server.Disconnect();
  for (;;) pause();
}

TEST(QvrLifecycle, ConnectionLost_IsLoggedAndReportedWheneverItHappens) {
  std::vector<test::Arguments> moments = {
      {"idle"}, {"transfer"}, {"control", "1"}, {"control", "2"}, {"control", "3"}};
  {
    test::ReportRoot root;
    const test::ChildRun run = test::RunChild("QvrLoss", root.path(), {"bring_up", "0"});
    ASSERT_EQ(run.result.exit_code, 0) << run.output;
    const std::string ready = "ready after ";
    const int packets = std::stoi(run.output.substr(run.output.find(ready) + ready.size()));
    ASSERT_GT(packets, 8);
    for (int i = 1; i <= packets; ++i) moments.push_back({"bring_up", std::to_string(i)});
  }
  std::vector<test::ReportRoot> roots(moments.size());
  test::RunSideBySide(
      moments.size(),
      [&](size_t i) { return test::StartChild("QvrLoss", roots[i].path(), moments[i]); },
      [&](size_t i, const test::ChildRun& run) {
        SCOPED_TRACE(testing::PrintToString(moments[i]));
        const std::string text = "QVR transport disconnected from ULK...exiting";
        EXPECT_EQ(test::CountOf(" handle_qvr_connection_event: " + text + "\n", run.output), 1u);
        test::ExpectReport(214, text, run, roots[i]);
      });
}

}  // namespace
