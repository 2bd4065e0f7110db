// A service of ITest in a process of its own, for tests that are its clients.
#pragma once

#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <signal.h>
#include <test/platform/1.0/ITest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/test_root.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace test {

using Bytes = android::hardware::hidl_vec<uint8_t>;
using platform::V1_0::ICallback;
using platform::V1_0::ITest;

// What the service calls. on_event and on_notify run in the call.
struct Callback : public ICallback {
  android::hardware::Return<void> event(const Bytes& data) override {
    on_event(data);
    ++events;
    return android::hardware::Void();
  }
  android::hardware::Return<void> notify(uint32_t number) override {
    on_notify(number);
    ++notices;
    return android::hardware::Void();
  }

  std::function<void(const Bytes&)> on_event = [](const Bytes&) {};
  std::function<void(uint32_t)> on_notify = [](uint32_t) {};
  std::atomic<uint32_t> events{0}, notices{0};
};

class ServiceTest : public testing::Test {
 protected:
  // A sanitizer's report in another process would go unseen.
  void TearDown() override {
    if (process_ == nullptr) return;
    EXPECT_EQ(process_->Output().find("Sanitizer"), std::string::npos) << process_->Output();
    EXPECT_EQ(process_->Output().find("runtime error"), std::string::npos) << process_->Output();
  }

  // Starts the service and looks it up.
  void Serve(const std::string& pool_size = "1", const std::string& answer_time_ms = "10000") {
    process_ = StartService({pool_size, answer_time_ms});
    ASSERT_TRUE(process_->WaitForOutput("serving", kDeadline)) << process_->Output();
    service_ = ITest::tryGetService("default");
    ASSERT_NE(service_, nullptr);
  }
  static std::unique_ptr<ChildProcess> StartService(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), TestProgram("platform_test_service"));
    return std::make_unique<ChildProcess>(arguments);
  }
  // A client in a process of its own, attached.
  static std::unique_ptr<ChildProcess> StartClient(const std::string& mode) {
    auto client = std::make_unique<ChildProcess>(
        std::vector<std::string>{TestProgram("platform_test_client"), mode});
    EXPECT_TRUE(client->WaitForOutput("attached 1", kDeadline)) << client->Output();
    return client;
  }
  // Returns when no thread of it runs any more.
  static void Stop(ChildProcess& process) {
    process.Signal(SIGSTOP);
    const std::string path = "/proc/" + std::to_string(process.pid()) + "/stat";
    EXPECT_TRUE(
        WaitFor([&] { return ReadFile(path).find(") T ") != std::string::npos; }, kDeadline));
  }
  // A callback of this process, attached.
  android::sp<Callback> Attach(std::function<void(const Bytes&)> on_event, bool link = false) {
    const android::sp<Callback> callback = new Callback;
    callback->on_event = std::move(on_event);
    EXPECT_TRUE(service_->attach(callback, link).isOk());
    return callback;
  }
  // callBack() of the service: how many calls got through.
  uint32_t CallBack(uint32_t count = 1, const Bytes& data = Bytes(1)) {
    return service_->callBack(count, data).withDefault(UINT32_MAX);
  }
  bool WaitForDeaths(uint32_t count) {
    return WaitFor([&] { return service_->deaths().withDefault(0) == count; }, kDeadline);
  }

  std::unique_ptr<ChildProcess> process_;
  android::sp<ITest> service_;
};

}  // namespace test
