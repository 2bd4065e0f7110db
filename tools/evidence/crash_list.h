// What failures of the service have left below the root folder.
#pragma once

#include <ctime>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace bthalctl {

// An array, oldest first: crash-information files with the dumps of the same timestamp, dumps
// without such a file, and tombstones. A folder that is not there holds nothing. Each entry has
// "time" (seconds since 1970), "files" (the one that was read first, then its dumps) and
//   of a crash-information file: reason, count (of the files that its process has written)
//   of a tombstone: signal, function, pid, tid, thread, message, frames
//   of any other file: mistake
// Strings hold whatever bytes the file has.
nlohmann::json CollectCrashes();

// What a crash of such an array was: its reason, "SIGNAL in FUNCTION", or what is wrong with its
// file.
std::string CrashTitle(const nlohmann::json& crash);

// For people: one line, and one more for each file, of every crash since then.
std::string DescribeCrashes(const nlohmann::json& crashes, time_t since = 0);

}  // namespace bthalctl
