// Reports as pages: what their first sentence says, and what a browser makes of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Json = nlohmann::json;

std::string Ctl(const std::string& root, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {ProgramDir() + "/bthalctl", "--root", root, "--wait", "0"});
  std::string output;
  EXPECT_EQ(Run(arguments, &output).exit_code, 0) << output;
  return output;
}

// The page as Chromium has it after loading; what its console says is a failure.
std::string OpenInBrowser(const std::string& page) {
  const TempDir profile;
  std::string output;
  const ChildResult end =
      Run({"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
           "--no-first-run", "--disable-background-networking", "--disable-component-update",
           "--disable-sync", "--user-data-dir=" + profile.path(), "--enable-logging=stderr",
           "--dump-dom", "file://" + page},
          &output, {}, std::chrono::minutes(2));
  EXPECT_EQ(end.exit_code, 0) << output;
  EXPECT_THAT(output, Not(HasSubstr("CONSOLE")));
  return output;
}

std::string Cell(const Json& seconds) {
  char text[64];
  std::snprintf(text, sizeof text, "<td class=\"number\">%.3f</td>", seconds.get<double>());
  return text;
}

TEST(Report, OfARunningService_IsAPageWithTheNumbersOfItsJson) {
  Handset handset(Mode::kPlain);
  const TempDir folder;
  WriteFile(handset.Path("data/property/persistent.prop"),
            "persist.bluetooth.capture=pcapng:10m:2\n");
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  ASSERT_EQ(handset.Ctl({"residency"}).exit_code, 0);
  const Json report = Json::parse(Ctl(handset.root(), {"report", "--json"}));
  WriteFile(folder / "kept.json", report.dump());
  const std::string page = folder / "page.html";
  Ctl(handset.root(), {"report", "--from", folder / "kept.json", "-o", page});

  EXPECT_THAT(report["verdict"]["text"].get<std::string>(),
              ::testing::StartsWith("The controller is up. The bring-up of "));
  const std::string shown = OpenInBrowser(page);
  EXPECT_GT(report["history"]["steps"].size(), 10u);
  for (const Json& step : report["history"]["steps"]) {
    const double took = step["end"].get<double>() - step["begin"].get<double>();
    EXPECT_THAT(shown, HasSubstr("<td>" + step["name"].get<std::string>() + "</td>" +
                                 Cell(step["begin"]) + Cell(took)));
  }
  ASSERT_EQ(report["residency"].size(), 4u);
  for (const Json& state : report["residency"]) {
    EXPECT_THAT(shown, HasSubstr("<td>" + state["state"].get<std::string>() +
                                 "</td><td class=\"number\">" + state["total_ms"].dump() +
                                 "</td><td class=\"number\">" + state["entries"].dump()));
  }
  for (const char* const direction : {"to_controller", "from_controller"}) {
    const Json& sums = report["history"]["traffic"][direction];
    EXPECT_GT(sums["packets"].get<int>(), 10);
    EXPECT_THAT(shown, HasSubstr("<td class=\"number\">" + sums["packets"].dump() +
                                 "</td><td class=\"number\">" + sums["bytes"].dump()));
  }
  // Its files tell the same when it is dead.
  handset.service().Signal(SIGKILL);
  ASSERT_TRUE(handset.service().Wait(kDeadline));
  const Json left = Json::parse(Ctl(handset.root(), {"report", "--json", "--files-only"}));
  EXPECT_FALSE(left["live"].get<bool>());
  EXPECT_EQ(left["history"]["steps"].size(), report["history"]["steps"].size());
  EXPECT_GE(left["history"]["traffic"]["to_controller"]["packets"],
            report["history"]["traffic"]["to_controller"]["packets"]);
  // Nothing that a browser would fetch.
  for (const char* const reference : {"src=", "url(", "@import", "href=\"http"}) {
    EXPECT_THAT(ReadFile(page), Not(HasSubstr(reference)));
  }
}

// What lies below a root folder may be anything.
TEST(Report, OfHostileFiles_ShowsThemAsTextAndStaysSmall) {
  const TempDir root;
  const auto write = [&](const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(root / path).parent_path());
    WriteFile(root / path, text);
  };
  const std::string markup = "<script>alert(1)</script>\x01\x1b[31m\xff\xc2\x80\"'&<b>";
  std::string log;
  const std::string time = "2026-11-21 06:46:16.841  5341  5353 ";
  log += time + "I bthal.zvkbtlinux: initialize_impl\n";
  log += time + "I bthal.hwcontrol: userial_tty_open: open " + markup + "\n";
  log += time + "E bthal.hwcontrol: " + markup + " 5A:56:4B:00:00:99\n";
  log += time + "W bthal.bqr: ParseLinkQualityRelatedEvt: " + markup +
         ", Handle: 0xffffffff, RSSI_C0: 99999999, RSSI_C1: -9, TxPw_C0: 1, ReTxPw_C0: 2, "
         "TxPw_C1: 3, ReTxPw_C1: 4\n";
  log += time +
         "I bthal.activitywatcher: getStateResidency: ActivityStat{7 : totalTimeMs "
         "9223372036854775807 totalEntryCount -1 lastEntryMs 5}\n";
  log += time + "W bthal.ewp:  [BT_EWP_DUMP] 0x000 : [Handle=0xe00, LEN=5]{DATA=x53, x45}\n";
  while (log.size() < 1 << 20) log += time + "I bthal.flowcontrol: " + markup + "\n";
  write("run/bthal/log", log);
  write("run/bthal/log.1", log.substr(7));
  for (int i = 10; i < 60; ++i) {
    const std::string name = "2026-11-21_06-48-" + std::to_string(i);
    write("data/vendor/ssrdump/crashinfo_bt_" + name + ".txt",
          "crash_reason: " + markup + "\ncrash_count: 1\ntimestamp: " + name + "\n");
    write("data/vendor/ssrdump/coredump/coredump_bt_" + name + ".bin",
          std::string(40000, static_cast<char>(i)) + markup);
    write("data/tombstones/tombstone_" + std::to_string(i), "half of a " + markup);
  }
  write("data/vendor/ssrdump/crashinfo_bt_x.txt", "crash_count: 99999999999999999999\n");

  const std::string page = root / "page.html";
  EXPECT_THAT(Ctl(root.path(), {"report", "-o", page}),
              HasSubstr("failed at \"serial port\": <script>"));
  const std::string html = ReadFile(page);
  EXPECT_LT(html.size(), 2u << 20);
  EXPECT_THAT(html, Not(HasSubstr("<script")));
  EXPECT_THAT(html, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;??[31m"));
  EXPECT_THAT(html, Not(HasSubstr("\x1b")));
  EXPECT_THAT(html, Not(HasSubstr("00:00:99")));
  EXPECT_THAT(html, Not(HasSubstr("x53, x45")));
  EXPECT_THAT(OpenInBrowser(page), HasSubstr("</html>"));

  const TempDir elsewhere;
  const std::string archive = elsewhere / "files.tgz";
  std::string output;
  ASSERT_EQ(
      test::Run({"tar", "-czf", archive, "-C", root.path(), "run", "data"}, &output).exit_code, 0);
  EXPECT_THAT(Ctl("/", {"report", "--from", archive, "-o", page}),
              HasSubstr("failed at \"serial port\": <script>"));
  EXPECT_EQ(test::Run({ProgramDir() + "/bthalctl", "report", "--from", root / "run/bthal/log", "-o",
                       page},
                      &output)
                .exit_code,
            1);
  EXPECT_THAT(output, HasSubstr("Unrecognized archive format"));
}

}  // namespace
}  // namespace test
