// The options and the output that commands which move data share.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/link/transfer.h"

namespace bthalctl {

struct TransferFlags {
  TransferOptions options;
  bool json = false;
};

void AddTransferFlags(CLI::App& command, TransferFlags& flags);

// Transfers with a progress bar and prints the result.
void RunTransfer(Exchange& exchange, const std::vector<Lane>& lanes, const TransferFlags& flags,
                 const std::string& label);

}  // namespace bthalctl
