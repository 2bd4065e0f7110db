// Clients that do not answer: what takes ten seconds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "platform/service_fixture.h"

namespace {

using android::sp;
using test::Bytes;
using test::Callback;
using test::ChildProcess;
using testing::HasSubstr;

class Silence : public test::ServiceTest {
 protected:
  // An event to a client that does not answer it.
  void ExpectClientLetGo() {
    uint32_t done = 0;
    uint32_t time_ms = 0;
    CallBack(1, Bytes(1), &done, &time_ms);
    EXPECT_EQ(done, 0u);
    EXPECT_GE(time_ms, 9900u);
    EXPECT_LT(time_ms, 15000u);
    EXPECT_TRUE(WaitForDeaths(1));
    EXPECT_THAT(process_->Output(), HasSubstr("was not answered for 10 s"));
    EXPECT_TRUE(service_->ping().isOk());
  }
};

TEST_F(Silence, SilentClient_IsLetGoAfterTenSeconds) {
  Serve("2");
  const std::unique_ptr<ChildProcess> client = StartClient("silent");
  ExpectClientLetGo();
}

TEST_F(Silence, StoppedClient_IsLetGoAfterTenSeconds) {
  Serve();
  const std::unique_ptr<ChildProcess> client = StartClient("attach");
  Stop(*client);
  ExpectClientLetGo();
  client->Signal(SIGCONT);
  EXPECT_TRUE(service_->ping().isOk());
}

TEST_F(Silence, ClientThatCallsBackForLong_IsNotLetGo) {
  Serve("2");
  const sp<Callback> callback = new Callback;
  callback->on_event = [&](const Bytes&) {
    std::thread releaser([&] {
      std::this_thread::sleep_for(std::chrono::seconds(11));  // longer than a client may be silent
      EXPECT_TRUE(service_->release().isOk());
    });
    EXPECT_TRUE(service_->block().isOk()) << "a call to the service has no limit";
    releaser.join();
  };
  EXPECT_TRUE(service_->attach(callback, true).isOk());
  uint32_t done = 0;
  CallBack(1, Bytes(1), &done);
  EXPECT_EQ(done, 1u);
}

}  // namespace
