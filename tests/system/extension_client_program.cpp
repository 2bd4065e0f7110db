// A client of the extension services. usage:
//   system_test_extension_client inject OPCODE
//     sends a command without parameters: "accepted after N s" or "refused after N s"
//   system_test_extension_client watch VERSION ADDRESS…
//     registers each address for connections through that version of the interface (1.0 or 1.1):
//     "registered", then "told ADDRESS COUNTER SYSTEM" for each call of its callback
#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCcc.h>
#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>
#include <hidl/HidlTransportSupport.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace hardware::nuvexa::bluetooth;  // NOLINT: as clients do
using android::sp;
using android::hardware::hidl_array;
using android::hardware::Return;
using android::hardware::Void;
using Address = hidl_array<uint8_t, 6>;

namespace {

void Print(const Address& a, uint16_t counter, uint64_t system_time) {
  printf("told %02x:%02x:%02x:%02x:%02x:%02x %d %" PRIu64 "\n", a[0], a[1], a[2], a[3], a[4], a[5],
         counter, system_time);
  fflush(stdout);
}

class Watcher : public ccc::V1_1::IBluetoothCccCallback {
 public:
  Return<void> lmpEventReceived(const ccc::V1_0::Timestamp& time, const Address& address,
                                ccc::V1_0::Direction, ccc::V1_0::LmpEventId,
                                uint16_t counter) override {
    Print(address, counter, time.systemTime);
    return Void();
  }
  Return<void> lmpEventReceived_1_1(const ccc::V1_1::Timestamp& time, const Address& address,
                                    ccc::V1_0::Direction, ccc::V1_0::LmpEventId,
                                    uint16_t counter) override {
    Print(address, counter, time.systemTime);
    return Void();
  }
};

Address Parse(const char* text) {
  Address a;
  if (sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &a[0], &a[1], &a[2], &a[3], &a[4], &a[5]) !=
      6) {
    fprintf(stderr, "not an address: %s\n", text);
    exit(2);
  }
  return a;
}

int Inject(uint16_t opcode) {
  const auto service = ext::V1_0::IBluetoothExt::getService();
  if (service == nullptr) return 1;
  const auto start = std::chrono::steady_clock::now();
  const Return<bool> accepted = service->setBluetoothCmdPacket(opcode, {});
  if (!accepted.isOk()) return 1;
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  printf("%s after %.3f s\n", accepted ? "accepted" : "refused", taken.count());
  return 0;
}

int Watch(const std::string& version, int count, char** addresses) {
  android::hardware::configureRpcThreadpool(1, false);
  const auto service = ccc::V1_1::IBluetoothCcc::getService();
  if (service == nullptr) return 1;
  const sp<Watcher> watcher = new Watcher;
  for (int i = 0; i < count; ++i) {
    const Address address = Parse(addresses[i]);
    const Return<void> done =
        version == "1.0"
            ? service->registerForLmpEvents(watcher, address, {ccc::V1_0::LmpEventId::CONNECT_IND})
            : service->registerForLmpEvents_1_1(watcher, address,
                                                {ccc::V1_0::LmpEventId::CONNECT_IND});
    if (!done.isOk()) return 1;
  }
  puts("registered");
  fflush(stdout);
  for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "inject" && argc == 3) {
    return Inject(static_cast<uint16_t>(strtoul(argv[2], nullptr, 0)));
  }
  if (mode == "watch" && argc > 3) return Watch(argv[2], argc - 3, argv + 3);
  return 2;
}
