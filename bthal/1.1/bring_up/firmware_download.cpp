#define LOG_TAG "bthal.zvkproto"

#include "bring_up/firmware_download.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "bring_up/btzvk_command.h"
#include "bring_up/firmware_patch.h"
#include "evidence/bring_up_steps.h"
#include "evidence/record.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;

constexpr uint16_t kOpcodeDownloadMinidriver = 0xFC2E;
constexpr uint16_t kOpcodeLaunchRam = 0xFC4E;
constexpr uint16_t kOpcodeSetDownloadConfig = 0xFE72;

// From this chip on, the controller is asked whether records may go unanswered; with the chip below
// they may.
constexpr uint8_t kFirstChipAskedForFastDownload = 0xAE;
constexpr uint8_t kChipWithFastDownload = 0xAA;

constexpr std::chrono::milliseconds kMinidriverTime{50};

constexpr char kDownload[] = "firmware_download";

evidence::BringUpSteps& Steps() { return evidence::BringUpSteps::Get(); }

bool Fail(const char* what, const std::string& record, uint8_t status) {
  LOG(ERROR) << kDownload << ": " << what << ": " << int{status};
  evidence::RecordFormat(AnchorType::kDownloadFailed, "%s: %s", kDownload, record.c_str());
  return false;
}

}  // namespace

bool FirmwareDownload::enable_fast_download() {
  LOG(INFO) << __func__ << ": Sending Set Download Config command";
  Steps().Begin("fast download");
  const uint8_t params[] = {0x00, 0x01};
  const uint8_t status = Send(kOpcodeSetDownloadConfig, sizeof params, params);
  if (status == 0) return true;
  LOG(ERROR) << __func__ << ": Set Download Config command returned: " << static_cast<int>(status);
  evidence::RecordFormat(AnchorType::kFastDownload,
                         "%s: Set Download Config command returned: 0x%2X", __func__, status);
  return false;
}

bool FirmwareDownload::decide_fast_download() {
  bool fast = false;
  if (fast_allowed_) {
    if (chip_id_ >= kFirstChipAskedForFastDownload) {
      fast = enable_fast_download();
    } else {
      fast = chip_id_ == kChipWithFastDownload;
    }
  }
  const char* verdict = fast ? "is" : "is not";
  LOG(INFO) << kDownload << ": Fast download " << verdict << " supported";
  Steps().End(std::string(verdict) + " supported");
  evidence::RecordFormat(AnchorType::kFastDownload, "%s: fast download %s supported", kDownload,
                         verdict);
  return fast;
}

uint8_t FirmwareDownload::Send(uint16_t opcode, uint8_t length, const uint8_t* params) {
  return btzvk_send_command_wait_complete(flow_, opcode, length, params);
}

bool FirmwareDownload::Run() {
  std::string name;
  const std::string path = FindFirmwarePatch(chip_id_, &name);
  if (!name.empty()) {
    evidence::RecordFormat(AnchorType::kFirmwareFile, "%s: firmware file [%s] be used", kDownload,
                           name.c_str());
  }
  return SendRecords(path);
}

bool FirmwareDownload::SendRecords(const std::string& path) {
  FirmwarePatch patch;
  LOG(INFO) << kDownload << ": Looking for patchfile [" << path << "]";
  Steps().Begin("firmware file", path);
  if (!patch.Open(path)) {
    BTHAL_LOG_AND_RECORD(ALOGE, AnchorType::kDownloadFailed, "%s: Unable to open patchfile [%s]",
                         kDownload, path.c_str());
    return false;
  }
  const bool fast = decide_fast_download();

  LOG(INFO) << kDownload << ": Sending Download Minidrv command";
  Steps().Begin("download mode");
  uint8_t status = Send(kOpcodeDownloadMinidriver, 0, nullptr);
  if (status != 0) {
    return Fail("Download Minidrv command failed",
                StringPrintf("UDownload Minidrv command failed: 0x%2X", status), status);
  }
  std::this_thread::sleep_for(kMinidriverTime);
  LOG(INFO) << kDownload << ": Downloading Firmware Patchram data";
  Steps().Begin("firmware records");

  FirmwarePatch::Record record;
  FirmwarePatch::Result result;
  while ((result = patch.Next(&record)) == FirmwarePatch::Result::kRecord) {
    const bool launch = record.opcode == kOpcodeLaunchRam;
    if (launch) {
      Steps().Begin("launch");
      LOG(INFO) << kDownload
                << StringPrintf(": Sending 0x%04x 0x%02x Launch Ram command", record.opcode,
                                record.length);
    } else {
      LOG(DEBUG) << kDownload
                 << StringPrintf(": Sending 0x%04x 0x%02x", record.opcode, record.length);
    }
    if (fast && !launch) {
      // A line that takes nothing any more ends the download, as a refused record does.
      const bool sent =
          btzvk_send_command_no_wait(flow_, record.opcode, record.length, record.params);
      status = sent ? 0 : kCommandTimedOut;
    } else {
      status = Send(record.opcode, record.length, record.params);
    }
    if (status != 0) {
      return Fail("Failed to write patchram",
                  StringPrintf("Failed to write patchram: 0x%x", status), status);
    }
  }
  if (result != FirmwarePatch::Result::kEnd) {
    const char* part = result == FirmwarePatch::Result::kShortHeader ? "preamble" : "parameters";
    LOG(ERROR) << kDownload << ": Failed to read patchram " << part << " (" << patch.count()
               << "): " << strerror(errno) << " (" << errno << ")";
    return false;
  }
  if (record.opcode != kOpcodeLaunchRam) {
    LOG(INFO) << kDownload << ": Sending Launch Ram command";
    Steps().Begin("launch");
    const uint8_t params[] = {0xFF, 0xFF, 0xFF, 0xFF};
    status = Send(kOpcodeLaunchRam, sizeof params, params);
    if (status != 0) {
      return Fail("Launch Ram command failed",
                  StringPrintf("Launch Ram command failed: 0x%x", status), status);
    }
  }
  return true;
}

}  // namespace android::hardware::bluetooth
