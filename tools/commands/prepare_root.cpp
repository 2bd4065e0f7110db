#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;

struct PrepareOptions {
  std::string folder;
  std::string uart;
  std::string firmware;
};

// Leaves what is there already: a second run repairs, it does not overwrite a board's settings.
void WriteIfAbsent(const fs::path& path, const std::string& content) {
  if (fs::exists(path)) return;
  std::ofstream out(path);
  out << content;
  if (!out.flush()) throw Failure("cannot write " + path.string());
}

void Prepare(const PrepareOptions& options) {
  const fs::path root = options.folder;
  try {
    for (const char* folder :
         {"dev", "data/property", "data/tombstones", "data/vendor/ssrdump/coredump",
          "proc/bluetooth/sleep", "sys/class/rfkill", "sys/power", "vendor/etc/bluetooth",
          "vendor/firmware/tovu", "run/bthal"}) {
      fs::create_directories(root / folder);
    }
    const fs::path uart = root / "dev/ttySAC16";
    fs::remove(uart);
    fs::create_symlink(fs::absolute(options.uart), uart);
    const fs::path coexistence = root / "dev/wbrc";
    if (mkfifo(coexistence.c_str(), 0600) != 0 && errno != EEXIST) {
      throw Failure(WithErrno("cannot make " + coexistence.string()));
    }
    WriteIfAbsent(root / "vendor/etc/bluetooth/bt_vendor.conf",
                  "# Settings of the Bluetooth service\n"
                  "UartPort = /dev/ttySAC16\n"
                  "UserialType = 1\n");
    WriteIfAbsent(root / "vendor/build.prop", "");
    if (!options.firmware.empty()) {
      fs::copy(options.firmware, root / "vendor/firmware/tovu",
               fs::copy_options::overwrite_existing);
    }
  } catch (const fs::filesystem_error& error) {
    throw Failure("cannot prepare " + root.string() + ": " + error.code().message() + " (" +
                  error.path1().string() + ")");
  }
  const std::string path = fs::absolute(root).lexically_normal().string();
  std::printf("ready %s\n", path.c_str());
  std::printf(
      "Settings are in %s/vendor/etc/bluetooth/bt_vendor.conf, firmware files go to\n"
      "%s/vendor/firmware/tovu. Then:\n"
      "  BTHAL_ROOT=%s android.hardware.bluetooth@1.1-service.zvkbtlinux\n",
      path.c_str(), path.c_str(), path.c_str());
  if (access(options.uart.c_str(), R_OK | W_OK) != 0) {
    std::fprintf(stderr, "note: %s\n", WithErrno(options.uart + " cannot be used yet").c_str());
  }
}

}  // namespace

void AddPrepareRoot(CLI::App& app) {
  auto prepare = std::make_shared<PrepareOptions>();
  CLI::App* command = app.add_subcommand(
      "prepare-root", "make a root folder for a controller at a real serial port");
  command->add_option("DIR", prepare->folder, "folder to make or to complete")->required();
  command->add_option("--uart", prepare->uart, "the serial port")
      ->capture_default_str()
      ->default_val("/dev/ttyUSB0");
  command->add_option("--firmware", prepare->firmware, "firmware file (.hcd), or a folder of them")
      ->check(CLI::ExistingPath);
  command->footer(
      "Example:\n  bthalctl prepare-root /srv/board --uart /dev/ttyUSB1 --firmware patch.hcd");
  command->callback([prepare] { Prepare(*prepare); });
}

}  // namespace bthalctl
