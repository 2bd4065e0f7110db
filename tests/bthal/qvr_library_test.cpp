// The co-processor transport against a messaging library that fails as it is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/qvr_fake.h"
#include "bthal/report_check.h"
#include "chre/qvr_helper.h"
#include "support/vectors.h"
#include "transport_shim.h"

namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::QvrHelper;
using test::Bytes;
using test::QvrFake;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

void Nothing(const hidl_vec<uint8_t>&) {}

class QvrLibrary : public testing::Test {
 protected:
  void SetUp() override { fake_ = QvrFake(); }
  void TearDown() override { helper_.Deinitialize(); }

  // Error lines of the log since the last call.
  std::vector<std::string> Errors() {
    std::vector<std::string> errors;
    lines_ = capture_.Take("bthal.qvrhelper");
    for (const std::string& line : lines_) {
      if (line[0] == 'E') errors.push_back(line.substr(2));
    }
    return errors;
  }

  test::LogCapture capture_;
  std::vector<std::string> lines_;  // all that Errors() has looked at
  QvrFake& fake_ = QvrFake::Get();
  QvrHelper& helper_ = QvrHelper::Get();
};

TEST_F(QvrLibrary, StepOfTheConnectionThatFails_IsToldReleasedAndTriedAgain) {
  const struct {
    const char* step;
    std::deque<int> results;
    const char* line;
  } cases[] = {
      {"InitClientManager", {6, 6}, "Failed to initialize qvr client mgr: err 6"},
      {"CreateTransportClient", {13}, "Failed to create a QVR transport client: err 13"},
      {"Connect", {11, 12, 14, 16, 2}, "Failed to connect to QVR transport server: err 2"},
      {"FindServer", {7}, "Failed to find CHRE message server: err 7"},
      {"SetConnectionHandler", {8}, "Failed to set QVR connection handler: err 8"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.step);
    fake_ = QvrFake();
    fake_.results[c.step] = c.results;
    EXPECT_TRUE(helper_.PrepareQvrTransport());
    EXPECT_THAT(Errors(), ElementsAre(std::string("InitQvrTransport: ") + c.line));
    EXPECT_THAT(lines_, Contains("I PrepareQvrTransport: return ret (1), count:1"));
    EXPECT_EQ(fake_.calls["ReleaseClientManager"], 1);
    helper_.Deinitialize();
    EXPECT_EQ(fake_.calls["ReleaseClientManager"], 2);
    capture_.Take("bthal.qvrhelper");
  }
}

TEST_F(QvrLibrary, StepThatIsTriedTwiceOrMore_FailsOnlyWhenAllFail) {
  fake_.results["InitClientManager"] = {6};
  fake_.results["Connect"] = {11, 11, 11, 11};
  EXPECT_TRUE(helper_.PrepareQvrTransport());
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_THAT(lines_, Contains("I PrepareQvrTransport: return ret (1), count:0"));
  EXPECT_THAT(lines_, Contains("I connect_to_qvr_with_retry: Connected to QVR Transport server "
                               "(retry count: 5)"));
  EXPECT_EQ(fake_.calls["InitClientManager"], 2);
  EXPECT_EQ(fake_.calls["Connect"], 5);
}

TEST_F(QvrLibrary, CallbacksThatCannotBeSet_AreToldAndNothingIsDelivered) {
  ASSERT_TRUE(helper_.PrepareQvrTransport());
  fake_.results["CreateWorker"] = {13};
  helper_.InitializeCallback(Nothing, Nothing, Nothing, Nothing);
  EXPECT_THAT(Errors(),
              ElementsAre("InitializeCallback: Failed to create BT msg handler worker: err: 13"));
  helper_.DeinitializeCallback();
  fake_.null_worker = true;
  helper_.InitializeCallback(Nothing, Nothing, Nothing, Nothing);
  EXPECT_THAT(Errors(),
              ElementsAre("InitializeCallback: Failed to create BT msg handler worker: err: 0"));
  helper_.DeinitializeCallback();
  fake_.null_worker = false;
  fake_.results["SetMessageHandler"] = {8};
  helper_.InitializeCallback(Nothing, Nothing, Nothing, Nothing);
  EXPECT_THAT(Errors(),
              ElementsAre("InitializeCallback: Failed to set Qvr Message Handler: err: 8"));
  helper_.DeinitializeCallback();
}

TEST_F(QvrLibrary, ControlRequest_NeedsBothErrorsToBeZero) {
  ASSERT_TRUE(helper_.PrepareQvrTransport());
  const std::string failed = " Attempt failed to deliver message to CHRE: send err ";
  fake_.results["Call"] = {5, 0, 3};
  fake_.response_error = 16;
  EXPECT_FALSE(helper_.PowerControl(true));
  EXPECT_FALSE(helper_.LpmEnable(true));
  fake_.response_error = 0;
  EXPECT_FALSE(helper_.GetChreDebugDump());
  EXPECT_THAT(Errors(), ElementsAre("PowerControl" + failed + "5, resp err 16",
                                    "LpmEnable" + failed + "0, resp err 16",
                                    "GetChreDebugDump" + failed + "3, resp err 0"));
  EXPECT_TRUE(helper_.LpmEnable(true));
}

// A null client with a result of success. In a process of its own: the tenth time ends it.
CHILD_CASE(QvrNullClient) {
  test::PrintReports();
  QvrFake::Get().null_client = true;
  QvrHelper::Get().PrepareQvrTransport();
  return 0;
}

TEST(QvrReports, NullClient_IsAFailureToPrepare) {
  test::ReportRoot root;
  const test::ChildRun run = test::RunChild("QvrNullClient", root.path());
  EXPECT_THAT(run.output,
              HasSubstr("InitQvrTransport: Init Failed: Created a NULL transport client!\n"));
  test::ExpectReport(192, "Prepare CHRE QVR transport failed!", run, root);
}

// Argument: the error that a packet cannot be sent for.
CHILD_CASE(QvrSendError) {
  test::PrintReports();
  if (shim::InitializeHciHandle(Nothing, Nothing, Nothing, Nothing) == nullptr) return 1;
  QvrFake::Get().results["Send"] = {std::stoi(arguments[0])};
  const Bytes reset = {0x03, 0x0C, 0x00};
  shim::Send(1, reset.data(), reset.size(), true);
  return 0;
}

// Each of the library's errors has a code of its own; beyond them the sum is taken modulo 256.
TEST(QvrReports, SendError_EndsTheProcessWithItsOwnCode) {
  std::vector<std::pair<int, int>> rows = {{257, 193}};
  for (int error = 1; error <= 20; ++error) rows.push_back({error, 192 + error});
  std::vector<test::ReportRoot> roots(rows.size());
  test::RunSideBySide(
      rows.size(),
      [&](size_t i) {
        return test::StartChild("QvrSendError", roots[i].path(), {std::to_string(rows[i].first)});
      },
      [&](size_t i, const test::ChildRun& run) {
        const auto& [error, code] = rows[i];
        SCOPED_TRACE(error);
        const std::string text =
            "SendHciToQvr: error sending packet via QVR, err: " + std::to_string(error);
        EXPECT_THAT(run.output, HasSubstr(" E bthal.qvrhelper: " + text + "\n"));
        test::ExpectReport(code, text, run, roots[i]);
      });
}

// 64 + 192 is 0, a code that no row has: the look-up ends the process.
TEST(QvrReports, SendErrorWithoutACode_EndsTheProcessBeforeTheEvent) {
  test::ReportRoot root;
  const test::ChildRun run = test::RunChild("QvrSendError", root.path(), {"64"});
  EXPECT_EQ(run.result.signal, SIGABRT);
  EXPECT_THAT(run.output, HasSubstr("error sending packet via QVR, err: 64\n"));
  EXPECT_THAT(run.output, Not(HasSubstr("sink")));
  EXPECT_TRUE(root.CoreDumps().empty());
}

}  // namespace
