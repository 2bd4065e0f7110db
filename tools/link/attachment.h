#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <chrono>
#include <string>

#include "tools/link/hci_link.h"

namespace bthalctl {

using Hci = ::android::hardware::bluetooth::V1_1::IBluetoothHci;

// The service of the root folder; waits at most so long for it to appear. Throws
// Failure(kNoService).
::android::sp<Hci> FindService(std::chrono::milliseconds wait);

// Throws Failure(kNoService) when the service does not answer a call within this time: while it is
// inside a bring-up it takes no other call.
void DemandAnswer(const ::android::sp<Hci>& service, std::chrono::milliseconds wait);

class StackCallbacks;

// The service's one place for a Bluetooth stack: taken by initialize, given up by close when the
// object is destroyed. If the process dies instead, that is the stack's death for the service.
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
  bool DeliverTo(Receiver receiver) override;

 private:
  const ::android::sp<Hci> service_;
  const ::android::sp<StackCallbacks> callbacks_;
};

}  // namespace bthalctl
