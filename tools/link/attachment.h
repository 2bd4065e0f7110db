#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <chrono>
#include <string>

#include "tools/link/hci_link.h"

namespace bthalctl {

using Hci = ::android::hardware::bluetooth::V1_1::IBluetoothHci;

// The service of the root folder. Waits for it at most so long. Throws Failure(kNoService).
::android::sp<Hci> FindService(std::chrono::milliseconds wait);

class StackCallbacks;

// The place of the Bluetooth stack at the service, of which there is one: made by initialize, given
// up by close when the object dies. If the process dies instead, so does the stack as the service
// sees it.
class Attachment : public HciLink {
 public:
  // Brings Bluetooth up and returns when it is. Throws Failure: kNoService, kBusy, kFailed.
  explicit Attachment(const ::android::sp<Hci>& service);
  ~Attachment() override;
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

  void Send(const Packet& packet) override;
  std::optional<Packet> Take() override;
  int fd() const override;

 private:
  const ::android::sp<Hci> service_;
  const ::android::sp<StackCallbacks> callbacks_;
};

}  // namespace bthalctl
