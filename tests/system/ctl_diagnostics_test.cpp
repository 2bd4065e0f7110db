// What bthalctl shows of a bring-up, of a debug report and of what a failure left.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

// Mode: plain, so that the bring-up is the one that "up" asks for.
TEST(CtlDiagnostics, Up_ShowsEachStepWithItsTime) {
  Handset handset(Mode::kPlain);
  handset.StartService();
  const CtlResult up = handset.Ctl({"up", "--detach"});
  ASSERT_EQ(up.exit_code, 0) << up.output;
  // In this order.
  std::string rest = up.output;
  for (const char* step :
       {"a stack attaches", "coexistence device", "power on", "serial port +0\\.0[5-9][0-9] s",
        "reset and chip id +[0-9.]+ s  chip id 181", "line speed +[0-9.]+ s  4000000 bit/s",
        "firmware file +[0-9.]+ s  /vendor/firmware/tovu/ZVK_B5.hcd",
        "fast download .* is supported", "firmware records",
        "firmware starts +0\\.[5-9][0-9][0-9] s", "reset and chip id", "line speed",
        "local name .* ZVK_B5 simulated 1.0", "low power", "the controller is ready",
        "device address +[0-9.]+ s  5A:56:4B:00:00:01", "the extensions are ready",
        "Bluetooth is up after"}) {
    ASSERT_THAT(rest, ContainsRegex(step)) << up.output;
    const std::string word = std::string(step).substr(0, std::string(step).find(" +"));
    if (rest.find(word) != std::string::npos) rest.erase(0, rest.find(word) + word.size());
  }
  EXPECT_THAT(up.output, Not(HasSubstr("failed")));

  const CtlResult list = handset.Ctl({"debug", "--list"});
  EXPECT_EQ(list.exit_code, 0);
  EXPECT_THAT(list.output, ContainsRegex("firmware +4 lines"));
  const CtlResult firmware = handset.Ctl({"debug", "--section", "firmware"});
  EXPECT_THAT(firmware.output,
              AllOf(HasSubstr("ZVK_B5 simulated 1.0"), Not(HasSubstr("Anchors'"))));
  // To a file: sections in the report's order, whatever the order of the names.
  ASSERT_EQ(handset.Ctl({"debug", "-s", "kernel", "history", "-o", handset.Path("out")}).exit_code,
            0);
  const std::string file = ReadFile(handset.Path("out"));
  EXPECT_THAT(file, HasSubstr("Debugfs:/dev/logbuffer_tty16"));
  EXPECT_LT(file.find("perform_init [ IN]"), file.find("Debugfs:"));
  EXPECT_THAT(file, Not(HasSubstr("Controller Firmware Information")));
}

TEST(CtlDiagnostics, BringUpThatKillsTheService_TheStepAndWhatWasLeftAreShown) {
  const TempDir folder;
  WriteFile(folder / "scenario", "on 0xFC4C nth 3 status 0x12\n");
  // A chip whose records are answered.
  Handset handset(Mode::kPlain, {"--chip", "20", "--scenario", folder / "scenario"});
  handset.StartService();
  const CtlResult up = handset.Ctl({"up", "--detach"});
  EXPECT_EQ(up.exit_code, 3) << up.output;
  EXPECT_THAT(up.output, ContainsRegex("firmware records +[0-9.]+ s  failed"));
  EXPECT_THAT(up.output, HasSubstr("E firmware_download: Failed to write patchram: 18"));
  EXPECT_THAT(up.output, HasSubstr("Host Firmware Download Error, crash 1 of its process"));
  EXPECT_THAT(up.output, ContainsRegex("/coredump_bt_[-_0-9]+\\.bin  "));
  EXPECT_THAT(up.output, HasSubstr("SIGABRT in HostDownloadFw, process "));
  EXPECT_THAT(up.output, HasSubstr("the service died while it brought Bluetooth up"));

  // The same again, from the files alone.
  handset.KillService();
  const CtlResult crashes = handset.Ctl({"crashes", "--json"});
  EXPECT_EQ(crashes.exit_code, 0);
  EXPECT_THAT(crashes.output, HasSubstr("\"reason\": \"Host Firmware Download Error\""));
  EXPECT_THAT(crashes.output, HasSubstr("\"count\": 1"));
  EXPECT_THAT(crashes.output, HasSubstr("\"function\": \"HostDownloadFw\""));
}

TEST(CtlDiagnostics, Crashes_FilesOfAnyContent_OneEntryEach) {
  const TempDir root;
  const std::string folder = root / "data/vendor/ssrdump/";
  const std::string good = "crash_reason: ControllerHwError\ncrash_count: 7\ntimestamp: ";
  WriteFile(folder + "crashinfo_bt_2026-11-21_06-48-18.txt", good + "2026-11-21_06-48-18\n");
  WriteFile(folder + "coredump/coredump_bt_2026-11-21_06-48-18.bin", "core");
  WriteFile(folder + "coredump/coredump_bt_socdump_2026-11-21_06-48-18.bin", std::string(2500, 0));
  WriteFile(folder + "coredump/coredump_bt_2026-11-20_01-00-00.bin", "alone");
  WriteFile(folder + "crashinfo_bt_2026-11-21_07-00-00.txt", "\x1b[31mnothing of the kind");
  WriteFile(folder + "crashinfo_bt_empty.txt", "");
  WriteFile(folder + "unrelated.txt", good);
  WriteFile(root / "data/tombstones/tombstone_00", std::string(1000, '\xff'));
  ASSERT_EQ(mkfifo((root / "data/tombstones/tombstone_01").c_str(), 0600), 0);
  std::string output;
  const auto run = [&](const std::vector<std::string>& options) {
    std::vector<std::string> command = {ProgramDir() + "/bthalctl", "--root", root.path(),
                                        "crashes"};
    command.insert(command.end(), options.begin(), options.end());
    return test::Run(command, &output).exit_code;
  };
  ASSERT_EQ(run({}), 0) << output;
  EXPECT_THAT(output, HasSubstr("2026-11-21 06:48:18  ControllerHwError, crash 7 of its process"));
  EXPECT_THAT(output, HasSubstr("coredump_bt_socdump_2026-11-21_06-48-18.bin  2.5 kB"));
  EXPECT_THAT(output, HasSubstr("2026-11-20 01:00:00  a dump without a crash-information file"));
  EXPECT_EQ(CountOf("there is no \"crash_reason: \" line", output), 2u) << output;
  EXPECT_EQ(CountOf("there is no \"Timestamp: \" line", output), 1u) << output;
  EXPECT_EQ(CountOf("is no regular file", output), 1u) << output;
  EXPECT_THAT(output, Not(HasSubstr("unrelated")));
  EXPECT_EQ(output.find('\x1b'), std::string::npos);
  ASSERT_EQ(run({"--json"}), 0) << output;
  EXPECT_EQ(CountOf("\"mistake\"", output), 5u) << output;
}

}  // namespace
}  // namespace test
