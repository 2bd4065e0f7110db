// A client of ITest that may misbehave. usage: platform_test_client MODE
//   attach  attaches a callback, prints "attached", and answers
//   silent  as attach, but its event() never returns
//   hammer  as attach, then calls without end
//   find    looks it up once, prints "error" and why it was not found, and ends
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <test/platform/1.0/ITest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

using namespace android::hardware;  // NOLINT: as clients do
using android::sp;
using test::platform::V1_0::ICallback;
using test::platform::V1_0::ITest;

namespace {

class Callback : public ICallback {
 public:
  explicit Callback(bool silent) : silent_(silent) {}
  Return<void> event(const hidl_vec<uint8_t>& /*data*/) override {
    while (silent_) pause();
    return Void();
  }
  Return<void> notify(uint32_t /*number*/) override { return Void(); }

 private:
  const bool silent_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "attach";
  if (mode == "find") {
    ITest::tryGetService("default");
    printf("error %d\n", details::lastLookUpError());
    return 0;
  }
  const sp<ITest> service = ITest::getService("default");
  if (service == nullptr) {
    printf("no service\n");
    return 1;
  }
  const bool linked = service->attach(new Callback(mode == "silent"), true);
  printf("attached %d\n", linked);
  fflush(stdout);
  const hidl_vec<uint8_t> data(100);
  while (mode == "hammer") {
    if (!service->echo(data, [](const auto&) {}).isOk()) return 2;
  }
  for (;;) pause();
}
