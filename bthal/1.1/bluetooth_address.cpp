#define LOG_TAG "bthal.bdaddress"

#include "bluetooth_address.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <root_folder/root_folder.h>

#include <array>
#include <cstdio>
#include <mutex>
#include <optional>
#include <utility>

#include "evidence/report.h"
#include "hci/command_waiter.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using evidence::BqrErrorCode;

constexpr uint16_t kOpcodeWriteAddress = 0xFC01;
constexpr char kDeviceTreeAddress[] = "/proc/device-tree/chosen/config/bt_addr";
constexpr char kBoardAddressProperty[] = "ro.vendor.bluetooth.evb_bdaddr";

// In the order of HCI: the last octet of the text first.
using Address = std::array<uint8_t, 6>;

class BluetoothAddress;

// The call that waits for an answer now, for the thread that ends its wait.
struct Waiting {
  std::mutex lock;  // a leaf
  BluetoothAddress* address GUARDED_BY(lock) = nullptr;
};

Waiting& TheWaiting() {
  static auto* waiting = new Waiting;
  return *waiting;
}

std::string ReadAddressText() {
  const base::unique_fd fd(root_folder::Open(kDeviceTreeAddress, O_RDONLY));
  if (fd.get() < 0) return base::GetProperty(kBoardAddressProperty, "");
  std::string text;
  base::ReadFdToString(fd, &text);
  return text.substr(0, text.find('\n'));
}

std::optional<Address> ParseAddress(const std::string& text) {
  for (const char* format : {"%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx%1c",
                             "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%1c"}) {
    Address a{};
    char rest;
    if (sscanf(text.c_str(), format, &a[5], &a[4], &a[3], &a[2], &a[1], &a[0], &rest) >= 6) {
      return a;
    }
  }
  return std::nullopt;
}

class BluetoothAddress final : public CommandWaiter {
 public:
  BluetoothAddress() : CommandWaiter("bthal.bdaddress", kOpcodeWriteAddress, kNoAnswer) {
    std::lock_guard<std::mutex> guard(TheWaiting().lock);
    TheWaiting().address = this;
  }
  ~BluetoothAddress() override {
    std::lock_guard<std::mutex> guard(TheWaiting().lock);
    TheWaiting().address = nullptr;
  }

  void Provision() {
    const std::optional<Address> address = ParseAddress(ReadAddressText());
    if (address) {
      address_ = *address;
    } else {
      evidence::Report(BqrErrorCode::HostBdaddrFault, "Can't fetch the provisioning BDA");
    }
    LOG(INFO) << __func__ << ": BDADDR <"
              << StringPrintf("%02x:%02x:%02x:%02x:%02x:%02x", address_[0], address_[1],
                              address_[2], address_[3], address_[4], address_[5])
              << ">";
  }

  bool Apply(HciFlowControl& flow) {
    const std::vector<uint8_t> command =
        BuildCommand(kOpcodeWriteAddress, static_cast<uint8_t>(address_.size()), address_.data());
    LOG(DEBUG) << __func__ << ": Send VSC <" << toString(hidl_vec<uint8_t>(command)) << ">";
    const uint8_t status = SendAndWait(flow, command, std::nullopt);
    if (!answered_) {
      LOG(WARNING) << __func__ << ": gave up waiting for the controller's answer";
    }
    return answered_ && status == 0;
  }

 protected:
  bool OnAnswer(const hidl_vec<uint8_t>& event, uint8_t status) override {
    const bool success = status == 0;
    LOG(success ? base::INFO : base::WARNING)
        << "OnEventReceive" << (success ? ": Recv Success VSE <" : ": Recv Failure VSE <")
        << toString(event) << ">";
    return !std::exchange(answered_, true);
  }

 private:
  static constexpr uint8_t kNoAnswer = 0xFF;

  Address address_{};
  bool answered_ = false;  // written under the flow-control lock, read once no answer can come
};

}  // namespace

bool ApplyProvisionBDAddress(HciFlowControl* flow, const std::function<bool()>& abandoned) {
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Bluetooth is not up, the address is not written";
    return false;
  }
  const std::shared_ptr<HciFlowControl> kept = flow->shared_from_this();
  BluetoothAddress address;
  address.Provision();
  if (abandoned()) address.GiveUp();
  return address.Apply(*kept);
}

void AbandonProvisioning() {
  std::lock_guard<std::mutex> guard(TheWaiting().lock);
  if (TheWaiting().address != nullptr) TheWaiting().address->GiveUp();
}

}  // namespace android::hardware::bluetooth::hci
