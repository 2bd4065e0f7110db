#include <hardware/nuvexa/bluetooth/sar/1.1/IBluetoothSar.h>

#include <algorithm>

#include "tools/commands/commands.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::android::hardware::hidl_array;
using ::hardware::nuvexa::bluetooth::sar::V1_1::IBluetoothSar;

struct SarOptions : CommandValues {
  std::vector<int> caps;
  std::vector<int> chain0;
  std::vector<int> chain1;
  std::vector<int> beamforming;
};

template <size_t kSize>
hidl_array<int8_t, kSize> Array(const std::vector<int>& caps) {
  hidl_array<int8_t, kSize> array;
  std::transform(caps.begin(), caps.end(), array.data(),
                 [](int cap) { return static_cast<int8_t>(cap); });
  return array;
}

// "BR 40, EDR 20, BLE 8", from the first of three.
std::string Text(const std::vector<int>& caps, size_t first = 0) {
  return "BR " + std::to_string(caps[first]) + ", EDR " + std::to_string(caps[first + 1]) +
         ", BLE " + std::to_string(caps[first + 2]);
}

void Sar(const Options& options, const SarOptions& sar) {
  const bool by_mode = !sar.chain0.empty() || !sar.chain1.empty() || !sar.beamforming.empty();
  if (by_mode) {
    if (sar.chain0.empty() || sar.chain1.empty() || sar.beamforming.empty()) {
      throw Failure(ExitCode::kUsage, "--chain0, --chain1 and --beamforming go together");
    }
    if (!sar.caps.empty()) {
      throw Failure(ExitCode::kUsage, "caps for all modes and caps for each do not go together");
    }
  } else if (sar.caps.size() != 1 && sar.caps.size() != 3) {
    throw Failure(ExitCode::kUsage, "give one cap, or three: BR EDR BLE");
  }

  const auto service = FindExtension<IBluetoothSar>(options.wait());
  CallOutcome outcome("bthal.sar");
  std::string done;
  nlohmann::json details;
  if (by_mode) {
    Demand(service->setBluetoothModeBasedTxPowerCap(Array<3>(sar.chain0), Array<3>(sar.chain1),
                                                    Array<6>(sar.beamforming)));
    done = "chain 0 " + Text(sar.chain0) + "; chain 1 " + Text(sar.chain1) +
           "; beamforming chain 0 " + Text(sar.beamforming) + ", chain 1 " +
           Text(sar.beamforming, 3);
    details = {{"chain0", sar.chain0}, {"chain1", sar.chain1}, {"beamforming", sar.beamforming}};
  } else if (sar.caps.size() == 3) {
    const auto caps = Array<3>(sar.caps);
    Demand(service->setBluetoothTechBasedTxPowerCap(caps[0], caps[1], caps[2]));
    done = Text(sar.caps);
    details = {{"caps", sar.caps}};
  } else {
    Demand(service->setBluetoothTxPowerCap(static_cast<int8_t>(sar.caps[0])));
    done = "all " + std::to_string(sar.caps[0]);
    details = {{"caps", sar.caps}};
  }
  const bool confirmed = outcome.Accepted();
  TellOutcome("power caps: " + done, confirmed, sar.json, details);
}

}  // namespace

void AddSar(CLI::App& app, const Options& options) {
  auto [command, sar] =
      AddCommand(app, options, Sar, "sar", "cap the transmit power", "for a script");
  const auto add_caps = [&command = command](const char* name, std::vector<int>& caps,
                                             const char* what, int least, int most) {
    command.add_option(name, caps, what)
        ->check(CLI::Range(0, 80).description(""))
        ->type_name(name[0] == '-' ? "CAP" : "")
        ->expected(least, most);
  };
  add_caps("CAPS", sar.caps, "one cap for everything, or three: BR EDR BLE", 0, 3);
  add_caps("--chain0", sar.chain0, "BR EDR BLE on antenna chain 0", 3, 3);
  add_caps("--chain1", sar.chain1, "BR EDR BLE on antenna chain 1", 3, 3);
  add_caps("--beamforming", sar.beamforming,
           "BR EDR BLE of chain 0, then of chain 1, while beamforming", 6, 6);
  command.footer(
      "Caps are in quarter steps, 0 to 80. A service that is not set to high resolution\n"
      "(SarBackOffHighResolution in its configuration) hands whole steps to the controller, 0 to\n"
      "20: a cap of 3 becomes 0. Caps hold until the next call, or until Bluetooth goes off.\n"
      "Examples:\n  bthalctl sar 40\n  bthalctl sar 40 20 8\n"
      "  bthalctl sar --chain0 40 40 20 --chain1 40 40 20 --beamforming 30 30 10 30 30 10");
}

}  // namespace bthalctl
