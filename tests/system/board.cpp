#include "system/board.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <stdexcept>

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kUart[] = "/dev/ttyBT7";
constexpr uint16_t kReadChipId = 0xFC79;
constexpr uint16_t kReadLocalName = 0x0C14;

Vector ErrorCode(int code) {
  for (const Vector& v : LoadVectors("error_codes.txt")) {
    if (v.name == std::to_string(code)) return v;
  }
  throw std::runtime_error("no error code " + std::to_string(code));
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
  std::filesystem::create_symlink(pty_.path(), folder_.path() + kUart);
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

void Board::StartService() {
  service_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{ServiceProgram()},
      std::map<std::string, std::string>{{"BTHAL_ROOT", folder_.path()}, {"BTHAL_LOG", "debug"}});
}

void Board::StartStack(const std::vector<std::string>& arguments) {
  stack_ = StartStackOn(folder_.path(), arguments);
}

Board::Evidence Board::Left() const {
  return {ContentsOf(Path("data/vendor/ssrdump")), ContentsOf(Path("data/vendor/ssrdump/coredump")),
          ContentsOf(Path("data/tombstones"))};
}

std::string RootInflammation(int code) {
  return "event " + ToHex({0xFF, 0x04, 0x58, 0x05, 0x00, static_cast<uint8_t>(code)}) + "\n";
}

void ExpectDeath(int code, const std::string& reason, const std::optional<ChildResult>& end,
                 const std::string& log, const Board::Evidence& evidence) {
  const Vector error = ErrorCode(code);
  const std::string &function = error.fields[0], &message = error.fields[1];
  const std::string last_words = "Bluetooth HAL crash with error code 0, vendor error code " +
                                 std::to_string(code) + ", extra info: " + reason;
  ASSERT_TRUE(end) << "the service lives";
  EXPECT_EQ(end->signal, SIGABRT);
  EXPECT_THAT(log, HasSubstr("ReportBqrError: root inflamed event with reason: " + message + " (" +
                             std::to_string(code) + ")\n"));
  EXPECT_THAT(log, HasSubstr(last_words + "\n"));
  EXPECT_THAT(evidence.crash_infos,
              ElementsAre(HasSubstr("crash_reason: " + message + "\ncrash_count: 1\n")));
  EXPECT_THAT(evidence.core_dumps,
              ElementsAre(AllOf(StartsWith("DUMP REASON: " + message + " - occurred at "),
                                HasSubstr(": " + reason + "\n"))));
  EXPECT_THAT(
      evidence.tombstones,
      ElementsAre(AllOf(HasSubstr("(SIGABRT)"), HasSubstr("Abort message: '" + last_words + "'\n"),
                        HasSubstr("::" + function + "("))));
}

}  // namespace test
