// A process that serves test.platform@1.0::ITest.
// usage: platform_test_service [POOL-SIZE [ANSWER-TIME-MS]]   of clients; 10 s by default
//        platform_test_service find   looks it up once, prints "error" and why it was not found
#include <android-base/thread_annotations.h>
#include <fcntl.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <test/platform/1.0/ITest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rpc/connection.h"

using namespace android::hardware;  // NOLINT: as services do
using android::sp;
using android::wp;
using ::android::hidl::base::V1_0::IBase;
using test::platform::V1_0::ICallback;
using test::platform::V1_0::ITest;

namespace {

class Service : public ITest, public hidl_death_recipient {
 public:
  Return<void> echo(const hidl_vec<uint8_t>& data, echo_cb reply) override {
    reply(data);
    return Void();
  }

  Return<bool> attach(const sp<ICallback>& callback, bool link) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    callback_ = callback;
    if (!link) return false;
    linked_.push_back(callback);
    return callback->linkToDeath(this, 42);
  }

  Return<sp<ICallback>> attached() override { return Callback(); }

  Return<uint32_t> callBack(uint32_t count, const hidl_vec<uint8_t>& data) override {
    uint32_t done = 0;
    while (done < count && Callback()->event(data).isOk()) ++done;
    return done;
  }

  Return<uint32_t> streamBack(uint32_t count, const hidl_vec<uint8_t>& data) override {
    hidl_vec<uint8_t> numbered = data;
    uint32_t done = 0;
    for (; done < count; ++done) {
      const uint32_t number = done + 1;
      if (numbered.size() >= sizeof number) memcpy(numbered.data(), &number, sizeof number);
      if (!Callback()->stream(numbered).isOk()) break;
    }
    (void)Callback()->ping().isOk();
    return done;
  }

  Return<uint32_t> notifyBack(uint32_t count) override {
    uint32_t taken = 0;
    while (taken < count && Callback()->notify(taken + 1).isOk()) ++taken;
    return taken;
  }

  void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
    const sp<IBase> dead = who.promote();
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find(linked_.begin(), linked_.end(), dead);
    if (cookie != 42 || found == linked_.end()) return;
    linked_.erase(found);
    ++deaths_;
  }

  Return<uint32_t> deaths() override { return deaths_.load(); }

  Return<void> push(uint32_t number) override {
    if (pushing_.exchange(true)) ++overlapping_;
    std::this_thread::sleep_for(std::chrono::microseconds(10));  // for another thread to come
    if (number != pushed_ + 1) ++disordered_;
    ++pushed_;
    pushing_ = false;
    return Void();
  }

  Return<void> pushed(pushed_cb reply) override {
    reply(pushed_, disordered_, overlapping_);
    return Void();
  }

  Return<void> writeTo(const hidl_handle& to, const hidl_string& text, writeTo_cb reply) override {
    hidl_handle owner;
    if (to != nullptr && to->numFds > 0) {
      dprintf(to->data[0], "%s", text.c_str());
      native_handle_t* copy = native_handle_create(1, 1);
      copy->data[0] = fcntl(to->data[0], F_DUPFD_CLOEXEC, 0);
      copy->data[1] = 77;
      owner.setTo(copy, true);
    }
    reply(owner);
    return Void();
  }

 private:
  sp<ICallback> Callback() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return callback_;
  }

  std::atomic<uint32_t> deaths_{0};
  std::atomic<bool> pushing_{false};
  std::atomic<uint32_t> pushed_{0}, disordered_{0}, overlapping_{0};
  std::mutex mutex_;
  sp<ICallback> callback_ GUARDED_BY(mutex_);
  std::vector<sp<ICallback>> linked_ GUARDED_BY(mutex_);  // a dropped proxy is not notified
};

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && argv[1] == std::string("find")) {
    ITest::tryGetService("default");
    printf("error %d\n", details::lastLookUpError());
    return 0;
  }
  if (argc > 2) bthal::rpc::client_answer_time = std::chrono::milliseconds(atoi(argv[2]));
  configureRpcThreadpool(argc > 1 ? static_cast<size_t>(atoi(argv[1])) : 1, true);
  const sp<Service> service = new Service;
  if (service->registerAsService("default") != android::OK) return 1;
  printf("serving\n");
  fflush(stdout);
  joinRpcThreadpool();
}
