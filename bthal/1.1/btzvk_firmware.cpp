// The firmware download of BtZvkProtocol.
#define LOG_TAG "bthal.zvkproto"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "btzvk_command.h"
#include "btzvk_protocol.h"
#include "conf.h"
#include "debug_central.h"
#include "firmware_patch.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugAnchor;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr uint16_t kOpcodeDownloadMinidriver = 0xFC2E;
constexpr uint16_t kOpcodeLaunchRam = 0xFC4E;
constexpr uint16_t kOpcodeSetDownloadConfig = 0xFE72;

// From this chip on, whether records may go unanswered is asked; the one below is known to.
constexpr uint8_t kFirstChipAskedForFastDownload = 0xAE;
constexpr uint8_t kChipWithFastDownload = 0xAA;

constexpr std::chrono::milliseconds kMinidriverTime{50};
constexpr std::chrono::milliseconds kFirmwareStartTime{500};

constexpr char kDownload[] = "firmware_download";

void Record(AnchorType type, const std::string& text) {
  DebugCentral::Get().UpdateRecord(type, text);
}

}  // namespace

bool BtZvkProtocol::enable_fast_download() {
  LOG(INFO) << __func__ << ": Sending Set Download Config command";
  const uint8_t params[] = {0x00, 0x01};
  const uint8_t status = send_and_wait(kOpcodeSetDownloadConfig, sizeof params, params);
  if (status == 0) return true;
  LOG(ERROR) << __func__ << ": Set Download Config command returned: " << static_cast<int>(status);
  Record(AnchorType::kFastDownload,
         StringPrintf("%s: Set Download Config command returned: 0x%2X", __func__, status));
  return false;
}

bool BtZvkProtocol::decide_fast_download(uint8_t chip_id) {
  bool fast = false;
  if (conf::Config::GetInstance()->GetFastDownloadState()) {
    if (chip_id >= kFirstChipAskedForFastDownload) {
      fast = enable_fast_download();
    } else {
      fast = chip_id == kChipWithFastDownload;
    }
  }
  const char* verdict = fast ? "is" : "is not";
  LOG(INFO) << kDownload << ": Fast download " << verdict << " supported";
  Record(AnchorType::kFastDownload,
         StringPrintf("%s: fast download %s supported", kDownload, verdict));
  return fast;
}

bool BtZvkProtocol::firmware_download() {
  const DebugAnchor anchor(AnchorType::kFirmwareDownload, kDownload, DebugCentral::Get());
  if (!hci::shim::IsUserialReady()) {
    LOG(ERROR) << kDownload << ": Userial is not ready";
    return false;
  }
  std::string name;
  const std::string path = FindFirmwarePatch(chip_id(), &name);
  if (!name.empty()) {
    Record(AnchorType::kFirmwareFile,
           StringPrintf("%s: firmware file [%s] be used", kDownload, name.c_str()));
  }
  if (!send_firmware_records(path)) return false;
  // The controller starts again at its default speed: only the host's side is switched.
  baudrate_change(UartBaudRate::kRate115200, true);
  std::this_thread::sleep_for(kFirmwareStartTime);
  LOG(INFO) << kDownload << ": Done";
  Record(AnchorType::kDownloadDone, StringPrintf("%s: Done", kDownload));
  return true;
}

bool BtZvkProtocol::send_firmware_records(const std::string& path) {
  FirmwarePatch patch;
  LOG(INFO) << kDownload << ": Looking for patchfile [" << path << "]";
  if (!patch.Open(path)) {
    LOG(ERROR) << kDownload << ": Unable to open patchfile [" << path << "]";
    Record(AnchorType::kDownloadFailed,
           StringPrintf("%s: Unable to open patchfile [%s]", kDownload, path.c_str()));
    return false;
  }
  const bool fast = decide_fast_download(chip_id());

  LOG(INFO) << kDownload << ": Sending Download Minidrv command";
  uint8_t status = send_and_wait(kOpcodeDownloadMinidriver);
  if (status != 0) {
    LOG(ERROR) << kDownload << ": Download Minidrv command failed: " << static_cast<int>(status);
    Record(AnchorType::kDownloadFailed,
           StringPrintf("%s: UDownload Minidrv command failed: 0x%2X", kDownload, status));
    return false;
  }
  std::this_thread::sleep_for(kMinidriverTime);
  LOG(INFO) << kDownload << ": Downloading Firmware Patchram data";

  FirmwarePatch::Record record;
  FirmwarePatch::Result result;
  while ((result = patch.Next(&record)) == FirmwarePatch::Result::kRecord) {
    if (record.opcode == kOpcodeLaunchRam) {
      LOG(INFO) << kDownload
                << StringPrintf(": Sending 0x%04x 0x%02x Launch Ram command", record.opcode,
                                record.length);
    } else {
      LOG(DEBUG) << kDownload
                 << StringPrintf(": Sending 0x%04x 0x%02x", record.opcode, record.length);
      if (fast) {
        btzvk_send_command_no_wait(flow().get(), record.opcode, record.length, record.params);
        continue;
      }
    }
    status = send_and_wait(record.opcode, record.length, record.params);
    if (status != 0) {
      LOG(ERROR) << kDownload << ": Failed to write patchram: " << static_cast<int>(status);
      Record(AnchorType::kDownloadFailed,
             StringPrintf("%s: Failed to write patchram: 0x%x", kDownload, status));
      return false;
    }
  }
  if (result != FirmwarePatch::Result::kEnd) {
    const char* part = result == FirmwarePatch::Result::kShortPreamble ? "preamble" : "parameters";
    LOG(ERROR) << kDownload << ": Failed to read patchram " << part << " (" << patch.count()
               << "): " << strerror(errno) << " (" << errno << ")";
    return false;
  }
  if (record.opcode != kOpcodeLaunchRam) {
    LOG(INFO) << kDownload << ": Sending Launch Ram command";
    const uint8_t params[] = {0xFF, 0xFF, 0xFF, 0xFF};
    status = send_and_wait(kOpcodeLaunchRam, sizeof params, params);
    if (status != 0) {
      LOG(ERROR) << kDownload << ": Launch Ram command failed: " << static_cast<int>(status);
      Record(AnchorType::kDownloadFailed,
             StringPrintf("%s: Launch Ram command failed: 0x%x", kDownload, status));
      return false;
    }
  }
  return true;
}

}  // namespace android::hardware::bluetooth
