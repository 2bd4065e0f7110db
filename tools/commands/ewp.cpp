#include <hardware/nuvexa/bluetooth/ewp/1.0/IBluetoothEwp.h>
#include <root_folder/root_folder.h>

#include <cstdio>

#include "tools/commands/commands.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::hardware::nuvexa::bluetooth::ewp::V1_0::IBluetoothEwp;

constexpr char kTag[] = "bthal.ewp";
constexpr char kRecord[] = " [BT_EWP_DUMP] ";

struct EwpOptions {
  int interval = 1000;
  double seconds = 0;  // 0: no end
  bool json = false;
};

void Enable(const ::android::sp<IBluetoothEwp>& service, const EwpOptions& ewp) {
  CallOutcome outcome(kTag);
  Demand(service->EnableEwp(static_cast<uint16_t>(ewp.interval)));
  const bool confirmed = outcome.Accepted();
  TellOutcome("EWP records are on, interval " + std::to_string(ewp.interval), confirmed, ewp.json,
              {{"on", true}, {"interval", ewp.interval}});
}

void Disable(const ::android::sp<IBluetoothEwp>& service, const EwpOptions& ewp) {
  CallOutcome outcome(kTag);
  Demand(service->DisableEwp());
  const bool confirmed = outcome.Accepted();
  TellOutcome("EWP records are off", confirmed, ewp.json, {{"on", false}});
}

void Watch(const Options& options, const EwpOptions& ewp) {
  const auto service = FindExtension<IBluetoothEwp>(options.wait());
  LogFollower log(root_folder::Resolve("/run/bthal/log"), false);
  Enable(service, ewp);
  const TimePoint deadline =
      ewp.seconds > 0
          ? Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(ewp.seconds * 1000))
          : kNever;
  try {
    do {
      log.Drain([](const std::string& text) {
        const std::optional<LogLine> line = ParseLogLine(text);
        if (!line || line->tag != kTag) return;
        if (const size_t at = line->text.find(kRecord + 1); at != std::string::npos) {
          std::puts(line->text.substr(at + sizeof kRecord - 2).c_str());
        }
      });
      std::fflush(stdout);
    } while (WaitReadable(log.fd(), deadline));
  } catch (const Interrupted&) {
    // The way to end it.
  }
  Disable(service, ewp);
}

}  // namespace

void AddEwp(CLI::App& app, const Options& options) {
  auto ewp = std::make_shared<EwpOptions>();
  CLI::App* command = app.add_subcommand("ewp", "switch the controller's EWP records");
  command->require_subcommand(1);
  command->footer(
      "The controller sends EWP records as ACL data on reserved handles; the service writes them\n"
      "to its log in hex; the stack gets them, too. They are off after Bluetooth went off and on.\n"
      "Examples:\n  bthalctl ewp on --interval 500\n  bthalctl ewp watch -t 5\n  bthalctl ewp off");
  const auto interval = [&](CLI::App* sub) {
    sub->add_option("-i,--interval", ewp->interval,
                    "between records, in the controller's unit, 0 to 65535")
        ->capture_default_str()
        ->type_name("N")
        ->check(CLI::Range(0, 65535).description(""));
  };
  CLI::App* on = command->add_subcommand("on", "let the records come");
  interval(on);
  on->add_flag("--json", ewp->json, "for a script");
  on->callback([&options, ewp] { Enable(FindExtension<IBluetoothEwp>(options.wait()), *ewp); });
  CLI::App* off = command->add_subcommand("off", "end them");
  off->add_flag("--json", ewp->json, "for a script");
  off->callback([&options, ewp] { Disable(FindExtension<IBluetoothEwp>(options.wait()), *ewp); });
  CLI::App* watch =
      command->add_subcommand("watch", "switch them on, show them as they come, switch them off");
  interval(watch);
  watch->add_option("-t,--time", ewp->seconds, "end after so many seconds; else at Ctrl-C")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 86400.0).description(""));
  watch->callback([&options, ewp] { Watch(options, *ewp); });
}

}  // namespace bthalctl
