#include "sim/controller/bring_up_commands.h"

#include <algorithm>

#include "sim/base/log.h"
#include "sim/firmware/image.h"

namespace zvk {
namespace {

constexpr uint16_t kWriteAddressOpcode = 0xFC01;
constexpr uint16_t kUpdateBaudRateOpcode = 0xFC18;
constexpr uint16_t kSetSleepModeOpcode = 0xFC27;
constexpr uint16_t kDownloadMinidriverOpcode = 0xFC2E;
constexpr uint16_t kVerboseConfigOpcode = 0xFC79;
constexpr uint16_t kVendorCapabilitiesOpcode = 0xFD53;
constexpr uint16_t kDownloadConfigOpcode = 0xFE72;

constexpr uint32_t kSpeeds[] = {115200,  230400,  460800,  921600,  1000000, 1500000, 2000000,
                                2500000, 3000000, 3500000, 4000000, 6000000, 6144000};

// Zero: the controller does not have it.
Writer VendorCapabilities(uint16_t version) {
  return Writer{status::kSuccess}
      .U8(0)   // advertising instances beside the standard's
      .U8(0)   // offloaded resolution of private addresses
      .U16(0)  // bytes of scan results that it stores
      .U8(0)   // identity resolving keys
      .U8(0)   // filtering
      .U8(0)   // filters
      .U8(0)   // activity and energy reports
      .U16(version)
      .U16(0)  // tracked advertisers
      .U8(0)   // extended scanning
      .U8(0)   // debug logging
      .U8(0)   // address generation
      .U32(0)  // A2DP offload
      .U8(1);  // quality reports
}

}  // namespace

void BringUpCommands::Register(CommandTable* table) {
  table->Complete(kVerboseConfigOpcode, 0, [this](ByteView) { return VerboseConfig(); });
  table->Complete(kUpdateBaudRateOpcode, 6, [this](ByteView p) { return UpdateBaudRate(p); });
  table->Complete(kDownloadMinidriverOpcode, 0, [this](ByteView) { return DownloadMinidriver(); });
  table->Complete(kWriteRamOpcode, 0, [this](ByteView p) { return WriteRam(p); });
  table->Complete(kLaunchRamOpcode, 0, [this](ByteView p) { return LaunchRam(p); });
  table->Complete(kSetSleepModeOpcode, 12, [this](ByteView p) { return SetSleepMode(p); });
  table->Complete(kWriteAddressOpcode, 6, [this](ByteView p) {
    context_.chip.provisioned = AddressAt(p, 0);
    return Writer{status::kSuccess};
  });
  table->Complete(kVendorCapabilitiesOpcode, 0,
                  [this](ByteView) { return VendorCapabilities(context_.chip.vendor_version); });
  if (context_.chip.preset->has_download_config) {
    table->Complete(kDownloadConfigOpcode, 2, [this](ByteView p) { return SetDownloadConfig(p); });
  }
}

bool BringUpCommands::Takes(uint16_t opcode) const {
  return !download_ || opcode == kDownloadMinidriverOpcode || opcode == kWriteRamOpcode ||
         opcode == kLaunchRamOpcode;
}

Writer BringUpCommands::VerboseConfig() const {
  // Chip id, then target, build base and build number.
  return Writer{status::kSuccess}
      .U8(context_.chip.preset->id)
      .U8(1)
      .U8(0)
      .U16(context_.chip.patched ? 1 : 0);
}

Writer BringUpCommands::UpdateBaudRate(ByteView params) {
  const uint32_t speed = params.U32(2);
  if (params.U16(0) != 0 ||
      std::find(std::begin(kSpeeds), std::end(kSpeeds), speed) == std::end(kSpeeds)) {
    return {status::kInvalidParameters};
  }
  context_.then([this, speed] { context_.board.set_speed(speed); });
  return {status::kSuccess};
}

Writer BringUpCommands::DownloadMinidriver() {
  download_ = std::make_unique<Download>(context_.chip.preset->id);
  return {status::kSuccess};
}

Writer BringUpCommands::SetDownloadConfig(ByteView params) {
  if (params[0] != 0 || params[1] > 1) return {status::kInvalidParameters};
  fast_ = params[1] == 1;
  return {status::kSuccess};
}

Writer BringUpCommands::WriteRam(ByteView params) {
  if (!download_) return {status::kDisallowed};
  const bool was_sound = download_->fault().empty();
  const uint8_t result = download_->Write(params);
  if (was_sound && result != status::kSuccess) {
    Log("firmware download: %s", download_->fault().c_str());
  }
  if (fast_ || context_.chip.preset->always_fast) return {};
  return {result};
}

Writer BringUpCommands::LaunchRam(ByteView params) {
  if (!download_) return {status::kDisallowed};
  const uint8_t result = download_->Launch(params);
  if (result != status::kSuccess) {
    Log("Launch RAM refused: %s", download_->fault().c_str());
  } else {
    context_.then([this] { context_.board.launch(download_->name()); });
  }
  return {result};
}

Writer BringUpCommands::SetSleepMode(ByteView params) {
  if (params.size() != 12 || params[0] > 1) return {status::kInvalidParameters};
  context_.chip.sleep_mode = params[0] == 1;
  return {status::kSuccess};
}

}  // namespace zvk
