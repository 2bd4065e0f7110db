#define LOG_TAG "android.hardware.bluetooth@1.1-service.zvkbtlinux"

#include <android/binder_process.h>
#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <signal.h>

#include <cstdio>

#include "bluetooth_ccc.h"
#include "bluetooth_ewp.h"
#include "bluetooth_hci.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "hci_inject.h"

namespace {

using ::android::sp;
using ::android::status_t;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::BluetoothHci;
using ::hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using ::hardware::nuvexa::bluetooth::ccc::V1_1::implementation::BluetoothCcc;
using ::hardware::nuvexa::bluetooth::ewp::V1_0::implementation::BluetoothEwp;
using ::hardware::nuvexa::bluetooth::ext::V1_0::implementation::BluetoothExt;
using ::hardware::nuvexa::bluetooth::sar::V1_1::implementation::BluetoothSar;

constexpr char kInstance[] = "default";

// A missing extension does not keep the HAL from starting.
template <typename Service>
void RegisterExtension(const sp<Service>& service, const char* name) {
  const status_t status = service->registerAsService(kInstance);
  if (status != ::android::OK) {
    ALOGW("Error while registering %s service: %d", name, status);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::fprintf(stderr, "%s takes no options; BTHAL_ROOT is the folder that stands for /\n",
                 argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  const sp<BluetoothHci> bluetooth_hci = new BluetoothHci;
  const sp<BTChannelAvoidance> channel_avoidance = new BTChannelAvoidance;
  const sp<BluetoothSar> sar = new BluetoothSar;
  const sp<BluetoothCcc> ccc = new BluetoothCcc;
  const sp<BluetoothEwp> ewp = new BluetoothEwp;
  const sp<BluetoothExt> ext = new BluetoothExt;

  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  ::android::hardware::configureRpcThreadpool(1, true);

  RegisterExtension(channel_avoidance, "BT Channel Avoidance");
  RegisterExtension(sar, "Bluetooth Sar");
  RegisterExtension(ccc, "Bluetooth Ccc");
  RegisterExtension(ewp, "Bluetooth Ewp");
  RegisterExtension(ext, "BluetoothExt");
  // Last: a client that finds the HAL finds the extensions, too.
  if (bluetooth_hci->registerAsService(kInstance) == ::android::OK) {
    ::android::hardware::joinRpcThreadpool();
  } else {
    ALOGE("Could not register as a service!");
  }
  return 0;
}
