#pragma once

#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCcc.h>

#include "extension_refusal.h"

namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation {

// The link-layer event service; refuses every call.
class BluetoothCcc : public IBluetoothCcc {
 public:
  ::android::hardware::Return<void> registerForLmpEvents(
      const ::android::sp<V1_0::IBluetoothCccCallback>& /*callback*/,
      const ::android::hardware::hidl_array<uint8_t, 6>& /*address*/,
      const ::android::hardware::hidl_vec<V1_0::LmpEventId>& /*lmpEventIds*/) override {
    return Refuse(__func__);
  }
  ::android::hardware::Return<void> registerForLmpEvents_1_1(
      const ::android::sp<V1_1::IBluetoothCccCallback>& /*callback*/,
      const ::android::hardware::hidl_array<uint8_t, 6>& /*address*/,
      const ::android::hardware::hidl_vec<V1_0::LmpEventId>& /*lmpEventIds*/) override {
    return Refuse(__func__);
  }
  ::android::hardware::Return<void> unregisterLmpEvents(
      const ::android::hardware::hidl_array<uint8_t, 6>& /*address*/) override {
    return Refuse(__func__);
  }

 private:
  static ::android::hardware::Return<void> Refuse(const char* call) {
    ::android::hardware::bluetooth::RefuseExtensionCall("bthal.ccc", call);
    return ::android::hardware::Void();
  }
};

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
