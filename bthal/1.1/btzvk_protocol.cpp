#define LOG_TAG "bthal.zvkproto"

#include "btzvk_protocol.h"

#include <android-base/logging.h>
#include <log/log.h>

#include <chrono>
#include <functional>
#include <thread>

#include "base/wake_lock.h"
#include "bluetooth_Activity.h"
#include "bring_up/btzvk_command.h"
#include "bring_up/firmware_download.h"
#include "conf.h"
#include "evidence/bring_up_steps.h"
#include "evidence/report.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth {
namespace {

using evidence::BringUpSteps;

constexpr uint16_t kOpcodeReset = 0x0C03;
constexpr uint16_t kOpcodeReadLocalName = 0x0C14;
constexpr uint16_t kOpcodeUpdateBaudRate = 0xFC18;
constexpr uint16_t kOpcodeSetSleepMode = 0xFC27;
constexpr uint16_t kOpcodeReadVerboseConfig = 0xFC79;

// Return parameters of a Command Complete begin behind its status.
constexpr size_t kReturnParameters = 6;

// What the firmware takes from its start to its first answer.
constexpr std::chrono::milliseconds kFirmwareStartTime{500};

}  // namespace

BtZvkProtocol* BtZvkProtocol::GetInstacne() {
  static auto* instance = new BtZvkProtocol;
  return instance;
}

BtZvkProtocol::BtZvkProtocol()
    : low_power_(
          {hci::shim::LpmSetup, hci::shim::LpmTeardown, hci::shim::LpmSuspend, hci::shim::LpmWakeUp,
           hci::shim::IsLpmRunning},
          [](const LowPower::Awake& awake) {
            V1_1::zvkbtlinux::activity::BtActivitiesLogger::GetInstacne()->UpdateBthalWakelockStat(
                {awake.wake_time, awake.sleep_time, awake.duration_ms, awake.transmissions});
          }) {}

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
  evidence::Record(AnchorType::kProtocolInitialize, "Initialize");
  {
    std::lock_guard<std::mutex> guard(lock_);
    flow_ = flow->shared_from_this();
  }
  if (hci::shim::IsUserialAutoInit()) {
    const uint32_t type = hci::shim::GetUserialType();
    LOG(INFO) << __func__ << ": Do no-op for USERIAL ( " << type << " )";
    evidence::RecordFormat(AnchorType::kAutoInit, "%s: HCI_UART driver (%u) handles BTZVK protocol",
                           __func__, type);
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
    evidence::Report(step.error, step.reason);
    return false;
  }
  if (!read_local_name()) {
    BTHAL_LOG_AND_RECORD(ALOGW, AnchorType::kLocalNameFailed,
                         "%s: Unable to get local name information", __func__);
  }
  lpm_setup();
  WakeLock::Get().Release();
  return true;
}

bool BtZvkProtocol::AcceleratedReset() {
  ALOGI("%s", __func__);
  BringUpSteps::Get().Mark("the controller is up already: a reset will do");
  return btzvk_reset();
}

bool BtZvkProtocol::send_hci_reset() {
  ALOGI("%s", __func__);
  BringUpSteps::Get().Begin("reset and chip id");
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
  BringUpSteps::Get().End("chip id " + std::to_string(id));
  evidence::RecordFormat(AnchorType::kChipId, "btzvk_reset, chip_id: %u", id);
  return id;
}

bool BtZvkProtocol::btzvk_reset() {
  const evidence::ScopedRecord anchor(AnchorType::kReset, __func__);
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
  const evidence::ScopedRecord anchor(AnchorType::kBaudrateChange, __func__);
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
  if (skip_command) {
    BringUpSteps::Get().Begin("firmware starts");
  } else {
    BringUpSteps::Get().Begin("line speed", std::to_string(bits_per_second) + " bit/s");
  }
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
      evidence::RecordFormat(AnchorType::kBaudrateFailed,
                             "%s: Update Baud Rate command failed: 0x%2X", __func__, status);
      return false;
    }
  }
  hci::shim::BaudrateChange(rate);
  LOG(INFO) << __func__ << ": Done";
  if (!skip_command) BringUpSteps::Get().End();
  return true;
}

bool BtZvkProtocol::firmware_download() {
  constexpr char kOperation[] = "firmware_download";
  const evidence::ScopedRecord anchor(AnchorType::kFirmwareDownload, kOperation);
  if (!hci::shim::IsUserialReady()) {
    LOG(ERROR) << kOperation << ": Userial is not ready";
    return false;
  }
  const std::shared_ptr<hci::HciFlowControl> flow = this->flow();
  const bool fast_allowed = conf::Config::GetInstance()->GetFastDownloadState();
  if (!FirmwareDownload(flow.get(), chip_id(), fast_allowed).Run()) return false;
  // The controller starts again at its default speed: only the host's side is switched.
  baudrate_change(UartBaudRate::kRate115200, true);
  std::this_thread::sleep_for(kFirmwareStartTime);
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kDownloadDone, "%s: Done", kOperation);
  BringUpSteps::Get().End();
  return true;
}

bool BtZvkProtocol::read_local_name() {
  const evidence::ScopedRecord anchor(AnchorType::kReadLocalName, __func__);
  constexpr char kOperation[] = "btzvk_read_local_name";
  ALOGI("%s", kOperation);
  BringUpSteps::Get().Begin("local name");
  const uint8_t status = send_and_wait(kOpcodeReadLocalName);
  if (status != 0) {
    LOG(ERROR) << kOperation << ": Read local name failed: " << static_cast<int>(status);
    BringUpSteps::Get().Fail();
    return false;
  }
  const hidl_vec<uint8_t> event = btzvk_last_completion();
  std::string name;
  for (size_t i = kReturnParameters; hci::ByteAt(event, i) != 0; ++i) {
    name += static_cast<char>(event[i]);
  }
  LOG(INFO) << kOperation << ": " << name;
  BringUpSteps::Get().End(name);
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
  evidence::Record(AnchorType::kShutdown, __func__);
  {
    std::lock_guard<std::mutex> guard(lock_);
    flow_.reset();
  }
  low_power_.Teardown();
}

}  // namespace android::hardware::bluetooth
