#include "handset_root.h"

#include <sys/stat.h>

#include <filesystem>
#include <utility>

#include "tests/support/temp_dir.h"

namespace bench {
namespace {

constexpr char kConfiguration[] = "/vendor/etc/bluetooth/bt_vendor.conf";

}  // namespace

HandsetRoot::HandsetRoot(std::string path) : path_(std::move(path)) {
  test::WriteFile(path_ + "/proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55\n");
  test::WriteFile(path_ + "/vendor/firmware/tovu/ZVK.hcd",
                  std::string("\x4e\xfc\x04\xff\xff\xff\xff", 7));
  std::filesystem::create_directories(path_ + "/dev");
  mkfifo((path_ + "/dev/wbrc").c_str(), 0600);
}

void HandsetRoot::UseSerialLine(const std::string& tty) const {
  const std::string port = path_ + "/dev/ttyS0";
  std::filesystem::remove(port);
  std::filesystem::create_symlink(tty, port);
  test::WriteFile(path_ + kConfiguration, "UartPort = /dev/ttyS0\n");
}

void HandsetRoot::UseCoProcessor() const {
  test::WriteFile(path_ + kConfiguration, "UserialType = 2\n");
}

}  // namespace bench
