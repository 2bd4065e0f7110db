#define LOG_TAG "bthal.zvkproto"

#include "btzvk_protocol.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include <functional>

#include "btzvk_command.h"
#include "debug_central.h"
#include "transport_shim.h"
#include "wake_lock.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugAnchor;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr uint16_t kOpcodeReset = 0x0C03;
constexpr uint16_t kOpcodeReadLocalName = 0x0C14;
constexpr uint16_t kOpcodeUpdateBaudRate = 0xFC18;
constexpr uint16_t kOpcodeSetSleepMode = 0xFC27;
constexpr uint16_t kOpcodeReadVerboseConfig = 0xFC79;

// Return parameters of a Command Complete begin behind its status.
constexpr size_t kReturnParameters = 6;

void Record(AnchorType type, const std::string& text) {
  DebugCentral::Get().UpdateRecord(type, text);
}

bool IsSupported(UartBaudRate rate) {
  switch (rate) {
    case UartBaudRate::kRate115200:
    case UartBaudRate::kRate3000000:
    case UartBaudRate::kRate4000000:
    case UartBaudRate::kRate6000000:
      return true;
  }
  return false;
}

}  // namespace

BtZvkProtocol* BtZvkProtocol::GetInstacne() {
  static auto* instance = new BtZvkProtocol;
  return instance;
}

std::shared_ptr<hci::HciFlowControl> BtZvkProtocol::flow() {
  std::lock_guard<std::mutex> guard(lock_);
  return flow_;
}

uint8_t BtZvkProtocol::chip_id() {
  std::lock_guard<std::mutex> guard(lock_);
  return chip_id_;
}

std::string BtZvkProtocol::LocalName() {
  std::lock_guard<std::mutex> guard(lock_);
  return local_name_;
}

uint8_t BtZvkProtocol::send_and_wait(uint16_t opcode, uint8_t length, const uint8_t* params) {
  return btzvk_send_command_wait_complete(flow().get(), opcode, length, params);
}

bool BtZvkProtocol::Initialize(hci::HciFlowControl* flow) {
  Record(AnchorType::kProtocolInitialize, "Initialize");
  {
    std::lock_guard<std::mutex> guard(lock_);
    flow_ = flow->shared_from_this();
  }
  if (hci::shim::IsUserialAutoInit()) {
    const uint32_t type = hci::shim::GetUserialType();
    LOG(INFO) << __func__ << ": Do no-op for USERIAL ( " << type << " )";
    Record(AnchorType::kAutoInit,
           StringPrintf("%s: HCI_UART driver (%u) handles BTZVK protocol", __func__, type));
    return true;
  }

  const auto fast_rate = static_cast<UartBaudRate>(hci::shim::RequiredBaudRate());
  const struct {
    std::function<bool()> run;
    BqrErrorCode error;
    const char* reason;
  } steps[] = {
      {[this] { return btzvk_reset(); }, BqrErrorCode::HostResetBeforeFw,
       "HCI Reset error before downloading firmware"},
      {[&] { return baudrate_change(fast_rate, false); }, BqrErrorCode::HostChangeBaudrate,
       "Unable to change to 4M baud rate before downloading firmware"},
      {[this] { return firmware_download(); }, BqrErrorCode::HostDownloadFw,
       "Unable to download firmware patchram"},
      {[this] { return btzvk_reset(); }, BqrErrorCode::HostResetAfterFw,
       "HCI Reset error after firmware downloaded"},
      {[&] { return baudrate_change(fast_rate, false); }, BqrErrorCode::HostChangeBaudrate,
       "Unable to change to 4M baud rate after firmware downloaded"},
  };
  WakeLock::Get().Acquire();
  for (const auto& step : steps) {
    if (step.run()) continue;
    Shutdown();
    DebugCentral::Get().ReportBqrError(step.error, step.reason);
    return false;
  }
  if (!read_local_name()) {
    LOG(WARNING) << __func__ << ": Unable to get local name information";
    Record(AnchorType::kLocalNameFailed,
           StringPrintf("%s: Unable to get local name information", __func__));
  }
  lpm_setup();
  WakeLock::Get().Release();
  return true;
}

bool BtZvkProtocol::AcceleratedReset() {
  ALOGI("%s", __func__);
  return btzvk_reset();
}

bool BtZvkProtocol::send_hci_reset() {
  ALOGI("%s", __func__);
  const uint8_t status = send_and_wait(kOpcodeReset);
  LOG(INFO) << __func__ << ": Done (status:" << static_cast<int>(status) << ")";
  return status == 0;
}

// 0 when it cannot be read.
uint8_t BtZvkProtocol::read_btzvk_chip_id() {
  ALOGD("%s", __func__);
  const uint8_t status = send_and_wait(kOpcodeReadVerboseConfig);
  if (status != 0) {
    LOG(ERROR) << __func__ << ": Read verbose config failed: " << static_cast<int>(status);
    return 0;
  }
  const uint8_t id = hci::ByteAt(btzvk_last_completion(), kReturnParameters);
  LOG(INFO) << __func__ << ": " << static_cast<int>(id);
  Record(AnchorType::kChipId, StringPrintf("btzvk_reset, chip_id: %u", id));
  return id;
}

bool BtZvkProtocol::btzvk_reset() {
  const DebugAnchor anchor(AnchorType::kReset, __func__, DebugCentral::Get());
  if (!hci::shim::IsUserialReady()) {
    LOG(ERROR) << __func__ << ": Userial port is not ready";
    return false;
  }
  if (!send_hci_reset()) return false;
  const uint8_t id = read_btzvk_chip_id();
  std::lock_guard<std::mutex> guard(lock_);
  chip_id_ = id;
  return id != 0;
}

bool BtZvkProtocol::baudrate_change(UartBaudRate rate, bool skip_command) {
  const DebugAnchor anchor(AnchorType::kBaudrateChange, __func__, DebugCentral::Get());
  if (!hci::shim::IsUserialReady()) {
    LOG(ERROR) << __func__ << ": Userial port is not ready";
    return false;
  }
  if (!hci::shim::SupportBaudRateChange()) {
    LOG(DEBUG) << __func__ << ": Userial port does not support baudrate change";
    return true;
  }
  const auto bits_per_second = static_cast<uint32_t>(rate);
  if (!IsSupported(rate)) {
    LOG(INFO) << __func__ << ": Baud rate (" << bits_per_second << ") unsupported";
    return false;
  }
  LOG(INFO) << __func__ << ": Sending Update Baud Rate (" << bits_per_second << ") command";
  if (!skip_command) {
    const uint8_t params[] = {0,
                              0,
                              static_cast<uint8_t>(bits_per_second),
                              static_cast<uint8_t>(bits_per_second >> 8),
                              static_cast<uint8_t>(bits_per_second >> 16),
                              0};
    const uint8_t status = send_and_wait(kOpcodeUpdateBaudRate, sizeof params, params);
    if (status != 0) {
      LOG(ERROR) << __func__ << ": Update Baud Rate command failed: " << static_cast<int>(status);
      Record(AnchorType::kBaudrateFailed,
             StringPrintf("%s: Update Baud Rate command failed: 0x%2X", __func__, status));
      return false;
    }
  }
  hci::shim::BaudrateChange(rate);
  LOG(INFO) << __func__ << ": Done";
  return true;
}

bool BtZvkProtocol::read_local_name() {
  const DebugAnchor anchor(AnchorType::kReadLocalName, __func__, DebugCentral::Get());
  constexpr char kOperation[] = "btzvk_read_local_name";
  ALOGI("%s", kOperation);
  const uint8_t status = send_and_wait(kOpcodeReadLocalName);
  if (status != 0) {
    LOG(ERROR) << kOperation << ": Read local name failed: " << static_cast<int>(status);
    return false;
  }
  const hidl_vec<uint8_t> event = btzvk_last_completion();
  std::string name;
  for (size_t i = kReturnParameters; hci::ByteAt(event, i) != 0; ++i) {
    name += static_cast<char>(event[i]);
  }
  LOG(INFO) << kOperation << ": " << name;
  std::lock_guard<std::mutex> guard(lock_);
  local_name_ = name;
  return true;
}

void BtZvkProtocol::lpm_setup() {
  low_power_.Setup([this] {
    const uint8_t params[] = {0x01, 0x18, 0x18, 0x01, 0x01, 0x01,
                              0x01, 0x00, 0x00, 0x00, 0x00, 0x00};
    return send_and_wait(kOpcodeSetSleepMode, sizeof params, params) == 0;
  });
}

void BtZvkProtocol::Shutdown() {
  ALOGI("%s", __func__);
  Record(AnchorType::kShutdown, __func__);
  {
    std::lock_guard<std::mutex> guard(lock_);
    flow_.reset();
  }
  low_power_.Teardown();
}

}  // namespace android::hardware::bluetooth
