// The service with watchers besides its own: of Command Completes that never come, as those of the
// extensions are most of the time. Prints "watching" when they are registered.
// usage: watched_service COUNT
#include <hidl/HidlTransportSupport.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <thread>

#include "bluetooth_hci.h"
#include "bluetooth_sar.h"
#include "hci/scoped_event_watcher.h"
#include "tests/support/wait.h"

namespace {

namespace hci = android::hardware::bluetooth::hci;
using android::hardware::bluetooth::V1_1::zvkbtlinux::BluetoothHci;
using hardware::nuvexa::bluetooth::sar::V1_1::implementation::BluetoothSar;

constexpr uint16_t kFirstOpcode = 0xFE00;

// An extension knows the flow control from the end of a bring-up on.
struct AnExtension : android::hardware::bluetooth::Extension<BluetoothSar> {
  using Extension::Shared;
};

void Watch(int count) {
  test::WaitFor([] { return AnExtension::Shared().flow() != nullptr; });
  static std::list<hci::ScopedEventWatcher> watchers;
  for (int i = 0; i < count; ++i) {
    watchers.emplace_back("bench", AnExtension::Shared().flow().get(), hci::kEventCommandComplete,
                          static_cast<uint16_t>(kFirstOpcode + i),
                          [](const auto&) { return false; });
  }
  printf("watching\n");
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const android::sp<BluetoothHci> hal = new BluetoothHci;
  android::hardware::configureRpcThreadpool(1, true);
  if (hal->registerAsService("default") != android::OK) return 1;
  std::thread(Watch, argc > 1 ? atoi(argv[1]) : 0).detach();
  android::hardware::joinRpcThreadpool();
}
