#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;

struct PrepareOptions : CommandValues {
  std::string folder;
  std::string uart = "/dev/ttyUSB0";
  std::string firmware;
  std::string address;
};

// Below the root folder. The service reads the file, and the property where there is no file.
constexpr char kAddressFile[] = "proc/device-tree/chosen/config/bt_addr";
constexpr char kPropertyFile[] = "vendor/build.prop";
constexpr char kAddressProperty[] = "ro.vendor.bluetooth.evb_bdaddr=";

void Write(const fs::path& path, const std::string& content) {
  std::ofstream out(path);
  out << content;
  if (!out.flush()) throw Failure("cannot write " + path.string());
}

// A second run completes a folder and keeps a board's settings.
void WriteIfAbsent(const fs::path& path, const std::string& content) {
  if (!fs::exists(path)) Write(path, content);
}

// The address in capitals. Throws Failure.
std::string CheckedAddress(const std::string& text) {
  const std::optional<Bytes> address = ParseAddress(text);
  if (!address) {
    throw Failure(ExitCode::kUsage, "\"" + text + "\" is no address such as 11:22:33:44:55:66");
  }
  if (*address == Bytes(6, 0x00) || *address == Bytes(6, 0xFF)) {
    throw Failure(ExitCode::kUsage, text + " cannot be the address of a device");
  }
  return AddressText(*address);
}

// What the service will find as the controller's address.
void TellAddress(const fs::path& root) {
  const auto tell = [&](const std::string& address, const char* file) {
    std::printf("The controller gets the address %s, out of %s.\n", address.c_str(),
                (root / file).c_str());
  };
  std::string line;
  std::ifstream file(root / kAddressFile);
  if (std::getline(file, line)) return tell(line, kAddressFile);
  std::ifstream properties(root / kPropertyFile);
  while (std::getline(properties, line)) {
    if (line.rfind(kAddressProperty, 0) == 0) {
      return tell(line.substr(sizeof kAddressProperty - 1), kPropertyFile);
    }
  }
  std::puts(
      "There is no address for the controller: without one the service ends with report 150 as\n"
      "soon as a stack attaches. Run this again with --address XX:XX:XX:XX:XX:XX, or set the\n"
      "property ro.vendor.bluetooth.evb_bdaddr in vendor/build.prop.");
}

void PrepareRoot(const Options& /*options*/, const PrepareOptions& prepare) {
  const fs::path root = prepare.folder;
  const std::string address = prepare.address.empty() ? "" : CheckedAddress(prepare.address);
  try {
    for (const char* folder :
         {"dev", "data/property", "data/tombstones", "data/vendor/ssrdump/coredump",
          "proc/bluetooth/sleep", "proc/device-tree/chosen/config", "sys/class/rfkill", "sys/power",
          "vendor/etc/bluetooth", "vendor/firmware/tovu", "run/bthal"}) {
      fs::create_directories(root / folder);
    }
    const fs::path uart = root / "dev/ttySAC16";
    fs::remove(uart);
    fs::create_symlink(fs::absolute(prepare.uart), uart);
    const fs::path coexistence = root / "dev/wbrc";
    if (mkfifo(coexistence.c_str(), 0600) != 0 && errno != EEXIST) {
      throw Failure(WithErrno("cannot make " + coexistence.string()));
    }
    WriteIfAbsent(root / "vendor/etc/bluetooth/bt_vendor.conf",
                  "# Settings of the Bluetooth service\n"
                  "UartPort = /dev/ttySAC16\n"
                  "UserialType = 1\n");
    WriteIfAbsent(root / kPropertyFile, "");
    if (!address.empty()) Write(root / kAddressFile, address + "\n");
    if (!prepare.firmware.empty()) {
      fs::copy(prepare.firmware, root / "vendor/firmware/tovu",
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
      "%s/vendor/firmware/tovu.\n",
      path.c_str(), path.c_str());
  TellAddress(path);
  std::printf(
      "Then:\n"
      "  BTHAL_ROOT=%s android.hardware.bluetooth@1.1-service.zvkbtlinux &\n"
      "  bthalctl --root %s up --detach\n",
      path.c_str(), path.c_str());
  std::fflush(stdout);
  if (access(prepare.uart.c_str(), R_OK | W_OK) != 0) {
    std::fprintf(stderr, "note: %s\n", WithErrno(prepare.uart + " cannot be used yet").c_str());
  }
}

}  // namespace

void AddPrepareRoot(CLI::App& app, const Options& options) {
  auto [command, prepare] = AddCommand(app, options, PrepareRoot, "prepare-root",
                                       "make a root folder for a controller at a real serial port");
  command.add_option("DIR", prepare.folder, "folder to make or to complete")->required();
  command.add_option("--uart", prepare.uart, "the serial port")
      ->type_name("PATH")
      ->capture_default_str();
  command.add_option("--firmware", prepare.firmware, "firmware file (.hcd), or a folder of them")
      ->type_name("PATH")
      ->check(CLI::ExistingPath);
  command.add_option("--address", prepare.address, "the controller's address")
      ->type_name("XX:XX:XX:XX:XX:XX");
  command.footer(
      "The service writes the address to the controller whenever a stack attaches, and ends when\n"
      "there is none. A second run keeps what the first one made, settings and address.\n"
      "Example:\n"
      "  bthalctl prepare-root /srv/board --uart /dev/ttyUSB1 --firmware ZVK_B5.hcd \\\n"
      "      --address 5A:56:4B:01:02:03");
}

}  // namespace bthalctl
