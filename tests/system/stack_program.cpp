// A Bluetooth stack that tells on stdout what it is given. usage: system_test_stack [close]
// Prints "complete STATUS", "event BYTES", and, when the service does not live through a call,
// "CALL failed". With close it detaches as soon as it is attached.
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHciCallbacks.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;

namespace {

class Callbacks : public IBluetoothHciCallbacks {
 public:
  Return<void> initializationComplete(Status status) override {
    printf("complete %d\n", static_cast<int>(status));
    fflush(stdout);
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& event) override {
    printf("event");
    for (const uint8_t byte : event) printf(" %02X", byte);
    printf("\n");
    fflush(stdout);
    return Void();
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
};

void Tell(const char* call, const Return<void>& result) {
  printf("%s %s\n", call, result.isOk() ? "done" : "failed");
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const sp<IBluetoothHci> hal = IBluetoothHci::getService("default");
  if (hal == nullptr) {
    printf("no service\n");
    return 1;
  }
  Tell("initialize", hal->initialize_1_1(new Callbacks));
  if (argc > 1 && strcmp(argv[1], "close") == 0) Tell("close", hal->close());
  for (;;) pause();
}
