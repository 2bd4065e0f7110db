#include "rpc/socket_folder.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>

#include "platform/test_root.h"
#include "support/wait.h"

namespace {

std::filesystem::path NamePath() { return test::RootFolder() + "/run/bthal/name"; }
bool make_folders = false;

}  // namespace

// The link step puts it in the way of the system's: just before the first watch, a service comes.
extern "C" int __real_inotify_add_watch(int fd, const char* path, uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int fd, const char* path, uint32_t mask) {
  if (make_folders) {
    make_folders = false;
    std::filesystem::create_directories(NamePath().parent_path());
  }
  return __real_inotify_add_watch(fd, path, mask);
}

namespace {

// Whoever waits watches the nearest folder that exists: a nearer one, made just before the watch,
// must not be slept through.
TEST(SocketFolder, FoldersMadeWhileAWaitBegins_AreWatched) {
  make_folders = true;
  int asked = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(bthal::rpc::SocketFolder::WaitUntil(start + test::kDeadline, [&] {
    // The name comes once the wait has seen that there is none.
    if (++asked == 2) std::filesystem::create_symlink("socket", NamePath());
    return is_symlink(NamePath());
  }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, test::kDeadline / 2);
}

}  // namespace
