#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/evidence/activity_report.h"
#include "tools/evidence/report_sections.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;
using Period = ActivityReport::Period;

Json ToJson(const std::vector<Period>& periods, bool with_handle) {
  Json out = Json::array();
  for (const Period& period : periods) {
    Json row = {{"start", period.start},
                {"end", period.end},
                {"ms", period.milliseconds},
                {"count", period.count}};
    if (with_handle) row["handle"] = period.handle;
    out.push_back(row);
  }
  return out;
}

// A table with a sum, which is what a search for a battery drain begins with.
void Print(const char* title, const char* counted, const std::vector<Period>& periods,
           bool with_handle) {
  double seconds = 0;
  unsigned long long count = 0;
  for (const Period& period : periods) {
    seconds += period.milliseconds / 1000.0;
    count += period.count;
  }
  std::printf("\n%s: ", Paint(Colour::kBold, title).c_str());
  if (periods.empty()) {
    std::puts("none");
    return;
  }
  std::printf("%zu, together %.1f s, %llu %s\n", periods.size(), seconds, count, counted);
  for (const Period& period : periods) {
    std::printf("  %s  to  %s  %9.3f s  %8u %s", period.start.c_str(), period.end.c_str(),
                period.milliseconds / 1000.0, period.count, counted);
    if (with_handle) std::printf("  first on handle 0x%04X", period.handle);
    std::puts("");
  }
}

void Activity(const Options& options, bool as_json) {
  std::string section;
  for (const Section& part : CutReport(TakeReport(options))) {
    if (part.name == "activity") section += part.text;
  }
  if (section.empty()) throw Failure("this service's report has no activity section");
  const ActivityReport report = ParseActivityReport(section);
  if (as_json) {
    Json devices = Json::array();
    for (const ActivityReport::Device& device : report.devices) {
      devices.push_back(
          {{"handle", device.handle}, {"address", device.address}, {"since", device.since}});
    }
    const Json out = {{"devices", devices},
                      {"wake_locks", ToJson(report.wake_locks, false)},
                      {"acl_received", ToJson(report.acl, true)},
                      {"advertising", ToJson(report.advertising, false)}};
    std::puts(out.dump(2).c_str());
    return;
  }
  std::printf("%s: ", Paint(Colour::kBold, "connected devices").c_str());
  std::puts(report.devices.empty() ? "none" : std::to_string(report.devices.size()).c_str());
  for (const ActivityReport::Device& device : report.devices) {
    std::printf("  %s  handle 0x%04X  since %s\n", device.address.c_str(), device.handle,
                device.since.c_str());
  }
  Print("kept awake to send, over 10 s", "packets", report.wake_locks, false);
  Print("ACL data received, over 5 s", "packets", report.acl, true);
  Print("advertising heard, over 5 s", "reports", report.advertising, false);
}

}  // namespace

void AddActivity(CLI::App& app, const Options& options) {
  auto as_json = std::make_shared<bool>(false);
  CLI::App* command =
      app.add_subcommand("activity", "what kept the radio and this machine busy lately");
  command->add_flag("--json", *as_json, "for a script; times of day, durations in ms");
  command->footer(
      "Out of the debug report: the devices that are connected, and the last 512 periods of each\n"
      "kind. A period of received data or advertising ends when nothing came for 2 s, which\n"
      "counts as part of it; periods of up to 5 s are not kept, wake locks of up to 10 s neither.\n"
      "They outlast Bluetooth off and on, but not the service.");
  command->callback([&options, as_json] { Activity(options, *as_json); });
}

}  // namespace bthalctl
