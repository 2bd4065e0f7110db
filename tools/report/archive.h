#pragma once

#include <string>

namespace bthalctl {

// Unpacks an archive of a handset's files (zip, tar and the like) into folder, which is empty:
// folders and regular files only, none outside folder, 256 MB at most. Returns the folder in it
// that is like a handset's root: the one that has "data" or "run". Throws Failure.
std::string UnpackHandsetFiles(const std::string& archive, const std::string& folder);

}  // namespace bthalctl
