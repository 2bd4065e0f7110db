// The root folder: every file that the service opens lies below the folder that the environment
// variable BTHAL_ROOT names, so that any number of services, each with a handset of its own, run
// side by side. Empty (as on a handset) it stands for "/". Callers use plain paths, and so do
// their log lines; only the calls below see the folder. Safe on any thread.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <string>

namespace root_folder {

// The folder, absolute, without a slash at its end; empty for "/". Read once, at first use.
const std::string& Path();

// Where path really lies: "/vendor/x" and "vendor/x" are both FOLDER/vendor/x.
std::string Resolve(const std::string& path);

// open(2) below the folder, always with O_CLOEXEC. Returns the descriptor, or -1 with errno set.
int Open(const std::string& path, int flags, mode_t mode = 0);

// opendir(3) below the folder. Returns null with errno set on failure.
DIR* OpenDirectory(const std::string& path);

// access(2) with F_OK below the folder.
bool Exists(const std::string& path);

}  // namespace root_folder
