#include <hardware/nuvexa/bluetooth/ewp/1.0/IBluetoothEwp.h>
#include <root_folder/root_folder.h>

#include <cstdio>

#include "tools/commands/commands.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::hardware::nuvexa::bluetooth::ewp::V1_0::IBluetoothEwp;

constexpr char kTag[] = "bthal.ewp";

struct EwpOptions : CommandValues {
  int interval = 1000;
  double seconds = 0;  // 0: no end
  bool bytes = false;
};

void Switch(const Options& options, const EwpOptions& ewp, bool on) {
  const auto service = FindExtension<IBluetoothEwp>(options.wait());
  CallOutcome outcome(kTag);
  Demand(on ? service->EnableEwp(static_cast<uint16_t>(ewp.interval)) : service->DisableEwp());
  nlohmann::json details = {{"on", on}};
  std::string done = "EWP records are off";
  if (on) {
    details["interval"] = ewp.interval;
    done = "EWP records are on, interval " + std::to_string(ewp.interval);
  }
  TellOutcome(done, outcome.Accepted(), ewp.json, details);
}

void Enable(const Options& options, const EwpOptions& ewp) { Switch(options, ewp, true); }
void Disable(const Options& options, const EwpOptions& ewp) { Switch(options, ewp, false); }

// The log has " [BT_EWP_DUMP] OFFSET : [Handle=0xe00, LEN=40]{DATA=x00, …": the handle and the
// length on a record's first line, 32 bytes on each.
void ShowRecord(const std::string& text, bool bytes) {
  constexpr char kMark[] = "[BT_EWP_DUMP] ";
  const size_t at = text.find(kMark);
  if (at == std::string::npos) return;
  const std::string record = text.substr(at + sizeof kMark - 1);
  unsigned handle = 0, size = 0;
  const bool first =
      std::sscanf(record.c_str(), "0x000 : [Handle=0x%x, LEN=%u]", &handle, &size) == 2;
  if (bytes) {
    std::puts(record.c_str());
  } else if (first) {
    std::printf("EWP record of %u bytes on handle 0x%03X\n", size, handle);
  }
}

void WatchRecords(const Options& options, const EwpOptions& ewp) {
  LogFollower log(root_folder::Resolve("/run/bthal/log"), false);
  Enable(options, ewp);
  const TimePoint deadline = EndAfter(ewp.seconds);
  try {
    do {
      log.Drain([&](const std::string& text) {
        const std::optional<LogLine> line = ParseLogLine(text);
        if (line && line->tag == kTag) ShowRecord(line->text, ewp.bytes);
      });
      std::fflush(stdout);
    } while (WaitReadable(log.fd(), deadline));
  } catch (const Interrupted&) {
    ForgetStopSignal();  // the way to end it
  }
  Disable(options, ewp);
}

}  // namespace

void AddEwp(CLI::App& app, const Options& options) {
  CLI::App* const group = app.add_subcommand("ewp", "switch the controller's EWP records");
  group->require_subcommand(1);
  group->footer(
      "The controller sends EWP records as ACL data on reserved handles. The service writes them\n"
      "to its log in hex and passes them on to the stack. They are off when Bluetooth comes on.\n"
      "Examples:\n  bthalctl ewp on --interval 500\n  bthalctl ewp watch -t 5\n  bthalctl ewp off");
  const auto add_interval = [](Declared<EwpOptions> declared) {
    declared.command
        .add_option("-i,--interval", declared.values.interval,
                    "between records, in the controller's unit, 0 to 65535")
        ->capture_default_str()
        ->type_name("N")
        ->check(CLI::Range(0, 65535).description(""));
  };
  add_interval(AddCommand(*group, options, Enable, "on", "let the records come", "for a script"));
  AddCommand(*group, options, Disable, "off", "end them", "for a script");
  const auto watch = AddCommand(*group, options, WatchRecords, "watch",
                                "switch them on, show them as they come, switch them off");
  add_interval(watch);
  watch.command.add_flag("-b,--bytes", watch.values.bytes,
                         "show the bytes, as the service logs them");
  AddSeconds(watch.command, "-t,--time", watch.values.seconds,
             "end after so many seconds; else at Ctrl-C", 0, 86400);
}

}  // namespace bthalctl
