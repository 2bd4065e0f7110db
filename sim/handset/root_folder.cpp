#include "sim/handset/root_folder.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "sim/firmware/image.h"

namespace zvk {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolders[] = {
    "dev",
    "sys/class/rfkill/rfkill0",
    "sys/power",
    "proc/bluetooth/sleep",
    "proc/device-tree/chosen/config",
    "vendor/etc/bluetooth",
    "vendor/firmware/tovu",
    "data/vendor/ssrdump/coredump",
    "data/tombstones",
    "data/property",
    "run/qvr",
    "run/zvksim",
};

constexpr char kConfig[] =
    "# Settings of the Bluetooth service on this handset.\n"
    "UartPort = /dev/ttySAC16\n";

constexpr char kCoProcessorConfig[] =
    "# Settings of the Bluetooth service on this handset: 2 is the co-processor.\n"
    "UserialType = 2\n";

constexpr char kProperties[] =
    "# Properties of this handset's build.\n"
    "ro.build.type=userdebug\n"
    "ro.product.model=zvksim\n";

}  // namespace

RootFolder::RootFolder(const Options& options, const ChipPreset& chip) {
  std::error_code error;
  path_ = fs::absolute(options.path, error).lexically_normal().string();
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  for (const char* folder : kFolders) {
    fs::create_directories(*this / folder, error);
    if (error) throw std::runtime_error((*this / folder) + ": " + error.message());
  }
  Lock();

  char address[32];
  std::snprintf(address, sizeof(address), "5A:56:4B:%02X:%02X:%02X\n", (options.seed >> 16) & 0xFF,
                (options.seed >> 8) & 0xFF, options.seed & 0xFF);
  WriteNew("proc/device-tree/chosen/config/bt_addr", address);
  WriteNew("sys/class/rfkill/rfkill0/type", "bluetooth\n");
  WriteNew("vendor/etc/bluetooth/bt_vendor.conf",
           options.co_processor ? kCoProcessorConfig : kConfig);
  WriteNew("vendor/build.prop", kProperties);
  WriteNew("dev/logbuffer_tty16", "ttySAC16: simulated serial line\n");
  WriteNew("dev/logbuffer_btlpm", "btlpm: simulated low-power driver\n");
  WriteFirmware("ZVK.hcd", 0, options);
  if (!chip.firmware_file.empty()) WriteFirmware(chip.firmware_file, chip.id, options);
}

RootFolder::~RootFolder() {
  std::error_code ignored;
  fs::remove(status_file(), ignored);
  fs::remove(*this / "run/zvksim/lock", ignored);
}

void RootFolder::Lock() {
  const std::string file = *this / "run/zvksim/lock";
  lock_.reset(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!lock_.ok()) throw std::runtime_error(file + ": " + std::strerror(errno));
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another zvksim runs on " + path_);
  }
}

void RootFolder::WriteNew(const std::string& name, const std::string& content) const {
  const std::string file = *this / name;
  if (fs::exists(file)) return;
  std::ofstream out(file, std::ios::binary);
  out << content;
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

void RootFolder::WriteFirmware(const std::string& file, uint8_t chip_id,
                               const Options& options) const {
  ImageOptions image;
  image.size = options.firmware_bytes;
  image.chip_id = chip_id;
  image.seed = options.seed;
  image.name = file.substr(0, file.find('.')) + " simulated 1.0";
  WriteNew("vendor/firmware/tovu/" + file, ByteView(MakeFirmware(image)).Text());
}

}  // namespace zvk
