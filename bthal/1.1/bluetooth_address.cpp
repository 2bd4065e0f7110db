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

#include "evidence/bring_up_steps.h"
#include "evidence/report.h"
#include "hci/command_waiter.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;

constexpr uint16_t kOpcodeWriteAddress = 0xFC01;
constexpr uint8_t kNoAnswer = 0xFF;
constexpr char kDeviceTreeAddress[] = "/proc/device-tree/chosen/config/bt_addr";
constexpr char kBoardAddressProperty[] = "ro.vendor.bluetooth.evb_bdaddr";

// In the order of HCI: the last octet of the text first.
using Address = std::array<uint8_t, 6>;

// The wait for the controller's answer, for the thread that ends it.
struct Wait {
  std::mutex lock;  // a leaf
  CommandWaiter* waiter GUARDED_BY(lock) = nullptr;

  void Set(CommandWaiter* new_waiter) EXCLUDES(lock) {
    std::lock_guard<std::mutex> guard(lock);
    waiter = new_waiter;
  }
};

Wait& TheWait() {
  static auto* wait = new Wait;
  return *wait;
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

// All zero when there is no address.
Address Provision() {
  const std::optional<Address> found = ParseAddress(ReadAddressText());
  if (!found) {
    evidence::Report(BqrErrorCode::HostBdaddrFault, "Can't fetch the provisioning BDA");
  }
  const Address address = found.value_or(Address{});
  LOG(INFO) << __func__ << ": BDADDR <"
            << StringPrintf("%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                            address[3], address[4], address[5])
            << ">";
  // The other way round, as people write it.
  evidence::BringUpSteps::Get().Begin(
      "device address", StringPrintf("%02X:%02X:%02X:%02X:%02X:%02X", address[5], address[4],
                                     address[3], address[2], address[1], address[0]));
  return address;
}

bool Apply(HciFlowControl& flow, const Address& address, CommandWaiter& waiter) {
  const std::vector<uint8_t> command =
      BuildCommand(kOpcodeWriteAddress, static_cast<uint8_t>(address.size()), address.data());
  LOG(DEBUG) << __func__ << ": Send VSC <" << toString(hidl_vec<uint8_t>(command)) << ">";
  const bool accepted = waiter.SendAndWait(flow, command, std::nullopt) == 0;
  if (waiter.answer().empty()) {
    LOG(WARNING) << __func__ << ": gave up waiting for the controller's answer";
  }
  if (accepted) {
    evidence::BringUpSteps::Get().End();
  } else {
    evidence::BringUpSteps::Get().Fail();
  }
  return accepted;
}

}  // namespace

bool ApplyProvisionBDAddress(HciFlowControl* flow, const std::function<bool()>& abandoned) {
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Bluetooth is not up, the address is not written";
    return false;
  }
  const std::shared_ptr<HciFlowControl> kept = flow->shared_from_this();
  CommandWaiter waiter(LOG_TAG, kOpcodeWriteAddress, kNoAnswer, base::INFO,
                       CommandWaiter::Keep::kFirst);
  TheWait().Set(&waiter);
  const Address address = Provision();
  if (abandoned()) waiter.GiveUp();
  const bool accepted = Apply(*kept, address, waiter);
  TheWait().Set(nullptr);
  return accepted;
}

void AbandonProvisioning() {
  std::lock_guard<std::mutex> guard(TheWait().lock);
  if (TheWait().waiter != nullptr) TheWait().waiter->GiveUp();
}

}  // namespace android::hardware::bluetooth::hci
