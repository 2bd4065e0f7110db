// What a service leaves behind that ends itself with a report.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "system/board.h"

namespace test {

struct Evidence {
  std::vector<std::string> crash_infos;  // contents
  std::vector<std::string> core_dumps;
  std::vector<std::string> tombstones;
  bool Empty() const { return crash_infos.empty() && core_dumps.empty() && tombstones.empty(); }
};

Evidence EvidenceOf(const Board& board);

// What system_test_stack prints of the event that a stack gets with a report.
std::string RootInflammation(int code);

// Expects an abort in the function of code, and one pair of crash files and one tombstone that say
// so. reason: what the reporter has added.
void ExpectDeath(int code, const std::string& reason, const std::optional<ChildResult>& end,
                 const std::string& log, const Evidence& evidence);

}  // namespace test
