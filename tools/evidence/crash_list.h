#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/evidence/evidence_file.h"

namespace bthalctl {

// One failure's evidence, or a file that should be some and is not.
struct Crash {
  struct File {
    std::string path;  // where it really lies
    uint64_t bytes = 0;
  };
  SystemTime time;
  std::optional<CrashInfo> info;
  std::optional<Tombstone> tombstone;
  std::vector<File> files;  // the one that was read first, then its dumps
  std::string mistake;      // what is wrong with the first file; neither of the two above is there
};

// Of the root folder, oldest first: crash-information files with the dumps of the same timestamp,
// dumps without such a file, and tombstones. A folder that is not there holds nothing.
std::vector<Crash> CollectCrashes();

// For people: two lines and one more a file.
std::string Describe(const Crash& crash);

}  // namespace bthalctl
