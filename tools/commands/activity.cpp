#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/evidence/activity_report.h"
#include "tools/evidence/report_sections.h"
#include "tools/link/attachment.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

void PrintDevices(const Json& devices) {
  std::printf("%s: %s\n", Paint(Colour::kBold, "connected devices").c_str(),
              devices.empty() ? "none" : std::to_string(devices.size()).c_str());
  for (const Json& device : devices) {
    std::printf("  %s  handle 0x%04X  since %s\n", device["address"].get<std::string>().c_str(),
                device["handle"].get<unsigned>(), device["since"].get<std::string>().c_str());
  }
}

// A table of periods and its sums.
void PrintPeriods(const char* title, const char* counted, const Json& periods) {
  double seconds = 0;
  uint64_t count = 0;
  for (const Json& period : periods) {
    seconds += period["ms"].get<double>() / 1000;
    count += period["count"].get<uint64_t>();
  }
  std::printf("\n%s: ", Paint(Colour::kBold, title).c_str());
  if (periods.empty()) {
    std::puts("none");
    return;
  }
  std::printf("%zu, together %.1f s, %ju %s\n", periods.size(), seconds, uintmax_t{count}, counted);
  for (const Json& period : periods) {
    std::printf("  %s  to  %s  %9.3f s  %8u %s", period["start"].get<std::string>().c_str(),
                period["end"].get<std::string>().c_str(), period["ms"].get<double>() / 1000,
                period["count"].get<unsigned>(), counted);
    if (period.contains("handle")) {
      std::printf("  first on handle 0x%04X", period["handle"].get<unsigned>());
    }
    std::puts("");
  }
}

void Activity(const Options& options, const CommandValues& values) {
  const std::string section = SectionsOf(TakeReport(options, {}, kLongestBringUp), {"activity"});
  if (section.empty()) throw Failure("this service's report has no activity section");
  const Json tables = ReadActivityTables(section);
  if (values.json) {
    std::puts(tables.dump(2).c_str());
    return;
  }
  PrintDevices(tables["devices"]);
  PrintPeriods("kept awake to send, over 10 s", "packets", tables["wake_locks"]);
  PrintPeriods("ACL data received, over 5 s", "packets", tables["acl_received"]);
  PrintPeriods("advertising heard, over 5 s", "reports", tables["advertising"]);
}

}  // namespace

void AddActivity(CLI::App& app, const Options& options) {
  AddCommand(app, options, Activity, "activity", "what kept the radio and this machine busy lately",
             "for a script; times of day, durations in ms")
      .command.footer(
          "From the debug report: the devices that are connected, and the last 512 periods of "
          "each\n"
          "kind. A period of received data or advertising ends when nothing has come for 2 s; "
          "those\n"
          "2 s count as part of it. Periods of up to 5 s are not kept, wake locks of up to 10 s "
          "not\n"
          "either. The service remembers them while it runs, also over Bluetooth off and on.");
}

}  // namespace bthalctl
