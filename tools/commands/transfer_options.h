// The options and the output that commands which move data share.
#pragma once

#include <string>
#include <vector>

#include "tools/commands/commands.h"
#include "tools/link/transfer.h"

namespace bthalctl {

struct TransferValues : CommandValues {
  TransferOptions transfer;
};

void AddTransferOptions(CLI::App& command, TransferOptions& transfer);

// Transfers with a progress bar and prints the result.
void RunTransfer(Exchange& exchange, const std::vector<Stream>& streams,
                 const TransferValues& values, const std::string& label);

}  // namespace bthalctl
