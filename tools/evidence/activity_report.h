#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace bthalctl {

// The tables in the activity section of a debug report, an array of rows each:
//   devices                    handle, address, since
//   wake_locks, advertising    start, end, ms, count
//   acl_received               start, end, handle (of the first packet), ms, count
// Times of day are strings, HH:MM:SS:mmm. Throws Failure that names a row which is none.
nlohmann::json ReadActivityTables(const std::string& section);

}  // namespace bthalctl
