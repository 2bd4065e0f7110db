// A service of ITest in a process of its own, for tests that are its clients.
#pragma once

#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
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

using Payload = android::hardware::hidl_vec<uint8_t>;
using platform::V1_0::ICallback;
using platform::V1_0::ITest;

// What the service calls. on_event, on_stream and on_notify run in the call.
struct Callback : public ICallback {
  android::hardware::Return<void> event(const Payload& data) override {
    on_event(data);
    ++events;
    return android::hardware::Void();
  }
  android::hardware::Return<void> stream(const Payload& data) override {
    on_stream(data);
    ++streamed;
    return android::hardware::Void();
  }
  android::hardware::Return<void> notify(uint32_t number) override {
    on_notify(number);
    ++notices;
    return android::hardware::Void();
  }

  std::function<void(const Payload&)> on_event = [](const Payload&) {};
  std::function<void(const Payload&)> on_stream = [](const Payload&) {};
  std::function<void(uint32_t)> on_notify = [](uint32_t) {};
  std::atomic<uint32_t> events{0}, streamed{0}, notices{0};
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
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{TestProgram("platform_test_service"), pool_size, answer_time_ms});
    ASSERT_TRUE(process_->WaitForOutput("serving", kDeadline)) << process_->Output();
    service_ = ITest::tryGetService("default");
    ASSERT_NE(service_, nullptr);
  }
  // A callback of this process, attached.
  android::sp<Callback> Attach(std::function<void(const Payload&)> on_event, bool link = false) {
    const android::sp<Callback> callback = new Callback;
    callback->on_event = std::move(on_event);
    EXPECT_TRUE(service_->attach(callback, link).isOk());
    return callback;
  }
  // callBack() of the service: how many calls got through.
  uint32_t CallBack(uint32_t count = 1, const Payload& data = Payload(1)) {
    return service_->callBack(count, data).withDefault(UINT32_MAX);
  }
  // streamBack() of the service.
  uint32_t StreamBack(uint32_t count, const Payload& data = Payload(4)) {
    return service_->streamBack(count, data).withDefault(UINT32_MAX);
  }
  bool WaitForDeaths(uint32_t count) {
    return WaitFor([&] { return service_->deaths().withDefault(0) == count; }, kDeadline);
  }

  std::unique_ptr<ChildProcess> process_;
  android::sp<ITest> service_;
};

}  // namespace test
