#define LOG_TAG "bthal.sar"

#include "bluetooth_sar.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <array>
#include <string>

#include "conf.h"
#include "hci/packet.h"

namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation {

using ::android::base::StringPrintf;

namespace {

constexpr uint16_t kOpcodeSetPowerCaps = 0xFE69;
constexpr uint8_t kFormatWholeSteps = 1;
constexpr uint8_t kFormatQuarterSteps = 5;
constexpr int8_t kMaxCap = 80;

// first: of three caps.
std::string ToText(const int8_t* first) {
  return StringPrintf("<br=%d, edr=%d, ble=%d>", first[0], first[1], first[2]);
}

}  // namespace

uint8_t scopeCap(int8_t cap, bool high_resolution) {
  if (cap > kMaxCap) {
    LOG(WARNING) << __func__ << ": cap " << int{cap} << " is greater than 80, set to 80";
    cap = kMaxCap;
  } else if (cap < 0) {
    LOG(WARNING) << __func__ << ": cap " << int{cap} << " is smaller than 0, set to 0";
    cap = 0;
  }
  return static_cast<uint8_t>(high_resolution ? cap : cap >> 2);
}

std::vector<uint8_t> buildCommand(const ChainCaps& chain0, const ChainCaps& chain1,
                                  const BeamformingCaps& beamforming, bool high_resolution) {
  std::vector<uint8_t> params = {high_resolution ? kFormatQuarterSteps : kFormatWholeSteps};
  const auto append = [&](const auto& caps) {
    for (size_t i = 0; i < caps.elementCount(); ++i) {
      params.push_back(scopeCap(caps[i], high_resolution));
    }
  };
  append(chain0);
  append(chain1);
  append(beamforming);
  return hci::BuildCommand(kOpcodeSetPowerCaps, static_cast<uint8_t>(params.size()), params.data());
}

BluetoothSar::BluetoothSar() : Extension(LOG_TAG, kOpcodeSetPowerCaps) {}

void BluetoothSar::Send(hci::HciFlowControl& flow, const ChainCaps& chain0, const ChainCaps& chain1,
                        const BeamformingCaps& beamforming) {
  Shared().SendCommand(flow, buildCommand(chain0, chain1, beamforming, Shared().high_resolution_));
}

Return<void> BluetoothSar::setBluetoothTxPowerCap(int8_t cap) {
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to set power cap " << int{cap};
    return Void();
  }
  LOG(INFO) << __func__ << ": " << Shared().pending() << " Cap=" << int{cap};
  const std::array<int8_t, 3> chain = {cap, cap, cap};
  const std::array<int8_t, 6> beamforming = {cap, cap, cap, cap, cap, cap};
  Send(*flow, ChainCaps(chain), ChainCaps(chain), BeamformingCaps(beamforming));
  return Void();
}

Return<void> BluetoothSar::setBluetoothTechBasedTxPowerCap(int8_t br, int8_t edr, int8_t ble) {
  const std::array<int8_t, 3> chain = {br, edr, ble};
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to set power cap " << ToText(chain.data());
    return Void();
  }
  LOG(INFO) << __func__ << ": " << Shared().pending() << " " << ToText(chain.data());
  const std::array<int8_t, 6> beamforming = {br, edr, ble, br, edr, ble};
  Send(*flow, ChainCaps(chain), ChainCaps(chain), BeamformingCaps(beamforming));
  return Void();
}

Return<void> BluetoothSar::setBluetoothModeBasedTxPowerCap(const ChainCaps& chain0,
                                                           const ChainCaps& chain1,
                                                           const BeamformingCaps& beamforming) {
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to set power cap Chain 0:" << ToText(chain0.data())
                 << ", Chain 1:" << ToText(chain1.data())
                 << "Beamforming: Chain 0:" << ToText(beamforming.data())
                 << ", Chain 1:" << ToText(beamforming.data() + 3);
    return Void();
  }
  LOG(INFO) << __func__ << ": " << Shared().pending()
            << " Chain 0 Power Cap:" << ToText(chain0.data())
            << ", Chain 1 Power Cap:" << ToText(chain1.data())
            << ", Beamforming Power Cap Chain 0: " << ToText(beamforming.data())
            << ", Chain 1:" << ToText(beamforming.data() + 3);
  Send(*flow, chain0, chain1, beamforming);
  return Void();
}

void BluetoothSar::Start(hci::HciFlowControl* flow) {
  high_resolution_ =
      ::android::hardware::bluetooth::conf::Config::GetInstance()->sar_back_off_high_resolution();
  Extension::Start(flow);
}

}  // namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation
