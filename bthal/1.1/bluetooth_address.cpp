#define LOG_TAG "bthal.bdaddress"

#include "bluetooth_address.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <bthal/root.h>
#include <fcntl.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>

#include "debug_central.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr uint16_t kOpcodeWriteAddress = 0xFC01;
constexpr char kDeviceTreeAddress[] = "/proc/device-tree/chosen/config/bt_addr";
constexpr char kBoardAddressProperty[] = "ro.vendor.bluetooth.evb_bdaddr";

// In the order of HCI: the last octet of the text first.
using Address = std::array<uint8_t, 6>;

// What a waiting call and whoever ends its wait share.
struct Wait {
  std::mutex lock;
  std::condition_variable changed;
};

Wait& TheWait() {
  static auto* wait = new Wait;
  return *wait;
}

std::string ReadAddressText() {
  const base::unique_fd fd(bthal::root::Open(kDeviceTreeAddress, O_RDONLY));
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

// Takes the answer to the address command. Lives on the stack of the waiting call.
class BluetoothAddress final : public HciEventWatcher {
 public:
  explicit BluetoothAddress(HciFlowControl* flow)
      : HciEventWatcher("bthal.bdaddress", kEventCommandComplete, kOpcodeWriteAddress),
        flow_(flow) {
    flow_->RegisterEventWatcher(this);
  }
  ~BluetoothAddress() override { flow_->UnregisterEventWatcher(this); }

  void Provision() {
    const std::optional<Address> address = ParseAddress(ReadAddressText());
    if (address) {
      address_ = *address;
    } else {
      DebugCentral::Get().ReportBqrError(BqrErrorCode::HostBdaddrFault,
                                         "Can't fetch the provisioning BDA");
    }
    LOG(INFO) << __func__ << ": BDADDR <"
              << StringPrintf("%02x:%02x:%02x:%02x:%02x:%02x", address_[0], address_[1],
                              address_[2], address_[3], address_[4], address_[5])
              << ">";
  }

  bool Apply(const std::function<bool()>& abandoned) {
    const hidl_vec<uint8_t> command =
        BuildCommand(kOpcodeWriteAddress, static_cast<uint8_t>(address_.size()), address_.data());
    {
      std::lock_guard<std::mutex> guard(TheWait().lock);
      reply_expected_ = true;
    }
    LOG(DEBUG) << __func__ << ": Send VSC <" << toString(command) << ">";
    flow_->Send(HCI_PACKET_TYPE_COMMAND, command.data(), command.size());

    std::unique_lock<std::mutex> guard(TheWait().lock);
    while (!accepted_ && !halted_ && !abandoned()) TheWait().changed.wait(guard);
    if (!accepted_) {
      LOG(WARNING) << __func__ << ": gave up waiting for the controller's answer";
    }
    return accepted_.value_or(false);
  }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override {
    const bool success = CommandCompleteStatus(event) == 0;
    LOG(success ? base::INFO : base::WARNING)
        << __func__ << (success ? ": Recv Success VSE <" : ": Recv Failure VSE <")
        << toString(event) << ">";
    std::lock_guard<std::mutex> guard(TheWait().lock);
    if (!accepted_) accepted_ = success;
    TheWait().changed.notify_all();
    return std::exchange(reply_expected_, false);
  }

  void OnHalt() override {
    std::lock_guard<std::mutex> guard(TheWait().lock);
    halted_ = true;
    TheWait().changed.notify_all();
  }

 private:
  HciFlowControl* const flow_;
  Address address_{};
  // Guarded by TheWait().lock:
  std::optional<bool> accepted_;
  bool reply_expected_ = false;
  bool halted_ = false;
};

}  // namespace

bool ApplyProvisionBDAddress(HciFlowControl* flow, const std::function<bool()>& abandoned) {
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Bluetooth is not up, the address is not written";
    return false;
  }
  const std::shared_ptr<HciFlowControl> kept = flow->shared_from_this();
  BluetoothAddress address(flow);
  address.Provision();
  return address.Apply(abandoned);
}

void ReconsiderProvisioning() {
  std::lock_guard<std::mutex> guard(TheWait().lock);
  TheWait().changed.notify_all();
}

}  // namespace android::hardware::bluetooth::hci
