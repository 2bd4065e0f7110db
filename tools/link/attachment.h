#pragma once

#include <android-base/unique_fd.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/link/hci_link.h"

namespace bthalctl {

using Hci = ::android::hardware::bluetooth::V1_1::IBluetoothHci;

// The service of the root folder; waits at most so long for it to appear. Throws
// Failure(kNoService).
::android::sp<Hci> FindService(std::chrono::milliseconds wait);

// How long an answer of the service is waited for. While it is inside a bring-up it takes no other
// call: longer than any that ends; and where there is something else to show.
constexpr std::chrono::seconds kLongestBringUp{30}, kAnswerTime{2};

// The service's debug call with these options; it writes to fd. Throws Failure(kNoService) when it
// has not answered within this time, or dies.
void CallDebug(const ::android::sp<Hci>& service, ::android::base::unique_fd fd,
               const std::vector<std::string>& options, std::chrono::milliseconds wait);

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
