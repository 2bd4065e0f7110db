#include "system/board.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace test {
namespace {

constexpr char kUart[] = "/dev/ttyBT7";
constexpr uint16_t kReadChipId = 0xFC79;
constexpr uint16_t kReadLocalName = 0x0C14;

std::vector<std::string> ContentsOf(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
    if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> contents;
  for (const std::string& path : paths) contents.push_back(ReadFile(path));
  return contents;
}

}  // namespace

Bytes Completion(const WireVector& vector, const Bytes& command, uint8_t status) {
  const int opcode = command[0] | command[1] << 8;
  Bytes parameters;
  if (opcode == kReadChipId) parameters = {vector.chip};
  if (opcode == kReadLocalName) parameters = {'Z', 'V', 'K', 0};
  return ScriptedController::Complete(command, status, parameters);
}

Board::Board(Mode mode, const WireVector& vector) {
  for (const char* folder : {"dev", "data/vendor/ssrdump/coredump", "sys/power"}) {
    std::filesystem::create_directories(Path(folder));
  }
  std::filesystem::create_symlink(pty_.path(), root() + kUart);
  if (mkfifo(Path("dev/wbrc").c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
  WriteFile(Path("sys/class/rfkill/rfkill0/type"), "bluetooth\n");
  for (const char* file :
       {"sys/class/rfkill/rfkill0/state", "proc/bluetooth/sleep/lpm",
        "proc/bluetooth/sleep/btwrite", "sys/power/wake_lock", "sys/power/wake_unlock"}) {
    WriteFile(Path(file), "");
  }
  WriteFile(Path("proc/device-tree/chosen/config/bt_addr"), "00:11:22:33:44:55");
  WriteFile(Path("vendor/etc/bluetooth/bt_vendor.conf"),
            std::string("UartPort=") + kUart +
                "\nFastDownloadDisable=" + (vector.fast_download ? "false" : "true") + "\n");
  WriteFile(Path("vendor/firmware/tovu/ZVK.hcd"), vector.patch_file);
  WriteFile(Path("vendor/build.prop"),
            mode == Mode::kPlain ? "persist.bluetooth.disable.accelerate.bt.on=true\n" : "");
}

Board::~Board() {
  for (const auto* process : {&service_, &stack_}) {
    if (*process == nullptr) continue;
    const std::string output = (*process)->Output();
    for (const char* sign : {"Sanitizer: ", ": runtime error: "}) {
      EXPECT_EQ(output.find(sign), std::string::npos) << output;
    }
  }
}

void Board::Play(ScriptedController::Script script) {
  controller_ = std::make_unique<ScriptedController>(pty_, std::move(script));
}

void Board::StartService(const std::vector<std::string>& prefix) {
  std::vector<std::string> command = prefix;
  command.push_back(ServiceProgram());
  service_ = std::make_unique<ChildProcess>(
      command, std::map<std::string, std::string>{{"BTHAL_ROOT", root()}, {"BTHAL_LOG", "debug"}});
}

void Board::StartStack(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {StackProgram()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  stack_ = std::make_unique<ChildProcess>(
      command, std::map<std::string, std::string>{{"BTHAL_ROOT", root()},
                                                  {"BTHAL_LOOKUP_TIMEOUT_MS", "30000"}});
}

std::vector<std::string> Board::CrashInfos() const {
  return ContentsOf(Path("data/vendor/ssrdump"));
}
std::vector<std::string> Board::CoreDumps() const {
  return ContentsOf(Path("data/vendor/ssrdump/coredump"));
}
std::vector<std::string> Board::Tombstones() const { return ContentsOf(Path("data/tombstones")); }

}  // namespace test
