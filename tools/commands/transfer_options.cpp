#include "tools/commands/transfer_options.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/terminal.h"

namespace bthalctl {

void AddTransferOptions(CLI::App& command, TransferOptions& transfer) {
  command.add_option("--bytes", transfer.bytes, "bytes of payload to move (suffixes k, M)")
      ->transform(CLI::AsSizeValue(true))
      ->capture_default_str();
  command.add_option("--size", transfer.size, "bytes of each payload; 0: mixed")
      ->capture_default_str();
  command
      .add_option("--pattern", transfer.pattern,
                  "payloads: random, control (only 0A 0D 11 13 FF), counter")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Pattern>{{"random", Pattern::kRandom},
                                                                 {"control", Pattern::kControl},
                                                                 {"counter", Pattern::kCounter}}));
  command.add_option("--seed", transfer.seed, "the same seed gives the same payloads")
      ->capture_default_str();
}

void RunTransfer(Exchange& exchange, const std::vector<Stream>& streams,
                 const TransferValues& values, const std::string& label) {
  TransferResult result;
  {
    ProgressBar bar(label, values.transfer.bytes);
    result = Transfer(exchange, streams, values.transfer, [&](uint64_t bytes) { bar.Show(bytes); });
  }
  uint64_t total = 0;
  for (const StreamResult& stream : result.streams) total += stream.bytes;
  if (values.json) {
    nlohmann::json out = {{"bytes", total}, {"seconds", result.seconds}};
    for (const StreamResult& stream : result.streams) {
      out["lanes"][TypeName(stream.type)] = {{"packets", stream.packets}, {"bytes", stream.bytes}};
    }
    std::puts(out.dump().c_str());
    return;
  }
  for (const StreamResult& stream : result.streams) {
    std::printf("%s  %8llu packets  %s\n", TypeName(stream.type),
                static_cast<unsigned long long>(stream.packets), HumanBytes(stream.bytes).c_str());
  }
  const double rate = static_cast<double>(total) / std::max(result.seconds, 1e-6);
  std::printf("%s there and back in %.2f s, %s/s each way: nothing lost, nothing reordered\n",
              HumanBytes(total).c_str(), result.seconds,
              HumanBytes(static_cast<uint64_t>(rate)).c_str());
}

}  // namespace bthalctl
