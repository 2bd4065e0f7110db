// What a daemon needs before main() and before its static objects: its root folder, its log file,
// the knowledge that it is alone there, tombstones. Linked into daemons only, whole.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "root_folder/root_folder.h"
#include "system/log.h"
#include "system/tombstone.h"
#include "system/wake_lock.h"

namespace bthal {
namespace {

[[noreturn]] void Refuse(const std::string& reason) {
  fprintf(stderr, "%s: %s\n", program_invocation_short_name, reason.c_str());
  _exit(1);
}

[[noreturn]] void RefuseWithError(const std::string& what) {
  Refuse(what + ": " + strerror(errno));
}

void MakeFolder(const char* path, mode_t mode) {
  const std::string folder = root_folder::Resolve(path);
  if (mkdir(folder.c_str(), mode) != 0 && errno != EEXIST) RefuseWithError(folder);
}

// Held until the process ends; the descriptor is meant to stay open.
void TakeLock() {
  const std::string path = root_folder::Resolve("/run/bthal/lock");
  const int lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (lock < 0) RefuseWithError(path);
  if (flock(lock, LOCK_EX | LOCK_NB) == 0) return;
  if (errno != EWOULDBLOCK) RefuseWithError(path);
  Refuse("another service runs on the root folder " +
         (root_folder::Path().empty() ? "/" : root_folder::Path()));
}

__attribute__((constructor(150))) void StartDaemon() {
  struct stat status;
  const std::string folder = root_folder::Resolve("/");
  if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    Refuse("there is no root folder " + root_folder::Path());
  }
  MakeFolder("/run", 0755);
  MakeFolder("/run/bthal", 0750);
  TakeLock();
  const std::string path = root_folder::Resolve("/run/bthal/log");
  if (!log::OpenFile(path)) RefuseWithError(path);
  InstallTombstones();
  ReleaseWakeLocksOfTheDead();
}

}  // namespace
}  // namespace bthal
