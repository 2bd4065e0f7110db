// Where histories come from.
#pragma once

#include <string>
#include <vector>

#include "tools/commands/commands.h"
#include "tools/history/history.h"
#include "tools/log/log_line.h"

namespace bthalctl {

// The log of the root folder's service, the older part first. Empty when there is none.
std::vector<LogLine> ReadServiceLog();

// Of the running service: its last bring-up, and what passes from now on for so many seconds, or
// until SIGINT. Throws Failure(kNoService).
History RecordHistory(const Options& options, double seconds);

// Of what a service has left below the root folder: the last bring-up in its log, what is told from
// then on, and what the captures on disk have of that time.
History HistoryOfFiles(const std::vector<LogLine>& log);

// Of a file that "bthalctl capture" or another program wrote. Throws Failure.
History HistoryOfCapture(const std::string& path);

}  // namespace bthalctl
