#include "tools/commands/transfer_options.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/terminal.h"

namespace bthalctl {

void AddTransferFlags(CLI::App& command, TransferFlags& flags) {
  TransferOptions& options = flags.options;
  command.add_option("--bytes", options.bytes, "bytes of payload to move (suffixes k, M)")
      ->transform(CLI::AsSizeValue(true))
      ->capture_default_str();
  command.add_option("--size", options.size, "bytes of each payload; 0: mixed")
      ->capture_default_str();
  command
      .add_option("--pattern", options.pattern,
                  "payloads: random, control (only 0A 0D 11 13 FF), counter")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Pattern>{{"random", Pattern::kRandom},
                                                                 {"control", Pattern::kControl},
                                                                 {"counter", Pattern::kCounter}}));
  command.add_option("--seed", options.seed, "the same seed gives the same payloads")
      ->capture_default_str();
  command.add_flag("--json", flags.json, "for a script");
}

void RunTransfer(Exchange& exchange, const std::vector<Lane>& lanes, const TransferFlags& flags,
                 const std::string& label) {
  TransferResult result;
  {
    ProgressBar bar(label, flags.options.bytes);
    result = Transfer(exchange, lanes, flags.options, [&](uint64_t bytes) { bar.Show(bytes); });
  }
  uint64_t total = 0;
  for (const LaneResult& lane : result.lanes) total += lane.bytes;
  if (flags.json) {
    nlohmann::json out = {{"bytes", total}, {"seconds", result.seconds}};
    for (const LaneResult& lane : result.lanes) {
      out["lanes"][TypeName(lane.type)] = {{"packets", lane.packets}, {"bytes", lane.bytes}};
    }
    std::puts(out.dump().c_str());
    return;
  }
  for (const LaneResult& lane : result.lanes) {
    std::printf("%s  %8llu packets  %s\n", TypeName(lane.type),
                static_cast<unsigned long long>(lane.packets), HumanBytes(lane.bytes).c_str());
  }
  const double rate = static_cast<double>(total) / std::max(result.seconds, 1e-6);
  std::printf("%s there and back in %.2f s, %s/s each way: nothing lost, nothing reordered\n",
              HumanBytes(total).c_str(), result.seconds,
              HumanBytes(static_cast<uint64_t>(rate)).c_str());
}

}  // namespace bthalctl
