#include <hardware/nuvexa/bluetooth/bt_channel_avoidance/1.0/IBTChannelAvoidance.h>

#include <algorithm>

#include "tools/commands/commands.h"
#include "tools/hci/channel_map.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::IBTChannelAvoidance;

struct AfhOptions : CommandValues {
  std::string avoid;
  std::string use;
  std::string map;
  std::vector<int> wlan;
  bool all = false;
};

void Afh(const Options& options, const AfhOptions& afh) {
  const bool chosen =
      !(afh.avoid.empty() && afh.use.empty() && afh.map.empty() && afh.wlan.empty());
  if (afh.all == chosen) {
    throw Failure(ExitCode::kUsage, chosen
                                        ? "--all goes with no other choice of channels"
                                        : "which channels? --avoid, --use, --wlan, --map or --all");
  }
  ChannelMap map = afh.map.empty() ? ChannelMap() : ChannelMap::FromHex(afh.map);
  if (!afh.use.empty()) map.UseOnly(afh.use);
  if (!afh.avoid.empty()) map.Avoid(afh.avoid);
  for (const int channel : afh.wlan) map.AvoidWlan(channel);
  if (map.used() < ChannelMap::kFewest) {
    throw Failure(ExitCode::kUsage, "that leaves " + std::to_string(map.used()) +
                                        " channels, and a controller needs at least 20");
  }

  const auto service = FindExtension<IBTChannelAvoidance>(options.wait());
  CallOutcome outcome("bthal.channel_avoidance");
  ::android::hardware::hidl_array<uint8_t, 10> argument;
  const Bytes bytes = map.bytes();
  std::copy(bytes.begin(), bytes.end(), argument.data());
  Demand(service->setBluetoothChannelStatus(argument));
  const bool confirmed = outcome.Accepted();
  const std::string avoided = map.Avoided();
  TellOutcome(std::to_string(map.used()) + " of 79 channels may be used, " +
                  (avoided.empty() ? "none is avoided" : "avoided: " + avoided) + " (map " +
                  HexText(bytes) + ")",
              confirmed, afh.json,
              {{"map", HexText(bytes)}, {"used", map.used()}, {"avoided", avoided}});
}

}  // namespace

void AddAfh(CLI::App& app, const Options& options) {
  auto [command, afh] =
      AddCommand(app, options, Afh, "afh",
                 "keep classic Bluetooth off channels that others disturb", "for a script");
  command.add_option("--avoid", afh.avoid, "channels to avoid, such as 0-10,40")
      ->type_name("CHANNELS");
  command.add_option("--use", afh.use, "the only channels to use")->type_name("CHANNELS");
  command.add_option("--wlan", afh.wlan, "avoid the 22 MHz around these WLAN channels, 1 to 14")
      ->type_name("N");
  command.add_option("--map", afh.map, "10 bytes in hex; channel 0 is the first's lowest bit")
      ->type_name("HEX");
  command.add_flag("--all", afh.all, "nothing is avoided any more");
  command.footer(
      "Channels are 0 to 78, channel n at 2402 + n MHz; at least 20 must be left. The map goes to\n"
      "the controller as Set AFH Host Channel Classification (0x0C3F) and holds until the next\n"
      "one, or until Bluetooth goes off. It is for classic Bluetooth, not for LE.\n"
      "Examples:\n  bthalctl afh --avoid 0-10,40\n  bthalctl afh --wlan 6\n  bthalctl afh --all");
}

}  // namespace bthalctl
