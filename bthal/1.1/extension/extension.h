#pragma once

#include <hidl/HidlSupport.h>

#include "evidence/record.h"
#include "extension/extension_command.h"

namespace android::hardware::bluetooth {

// What the extension services that send a command of their own share: one instance of each watches
// and counts, whichever instance a client calls.
template <typename Service>
class Extension : public ExtensionCommand {
 public:
  // Bluetooth goes on, through flow, or off.
  static void OnBluetoothEnabled(hci::HciFlowControl* flow) { Shared().Start(flow); }
  static void OnBluetoothDisabled() { Shared().Stop(); }

 protected:
  using ExtensionCommand::ExtensionCommand;

  static Service& Shared() {
    static const auto* instance = new sp<Service>(new Service);
    return **instance;
  }
};

}  // namespace android::hardware::bluetooth

// What the services call by short names.
namespace hardware::nuvexa::bluetooth {

using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hardware::bluetooth::AnchorType;
using ::android::hardware::bluetooth::Extension;
namespace evidence = ::android::hardware::bluetooth::evidence;
namespace hci = ::android::hardware::bluetooth::hci;

}  // namespace hardware::nuvexa::bluetooth
