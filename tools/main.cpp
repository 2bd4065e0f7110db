// bthalctl: the command-line client of the Bluetooth service.

#include <android/log.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/commands/extcap.h"

namespace {

using bthalctl::ExitCode;

constexpr char kFooter[] =
    "Examples:\n"
    "  bthalctl --root /tmp/handset up --detach\n"
    "  bthalctl --root /tmp/handset scan -t 3\n"
    "  bthalctl --root /tmp/handset cmd read_bd_addr\n"
    "  bthalctl --root /tmp/handset down\n"
    "Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 no service or it died,\n"
    "4 another program holds Bluetooth, 130 Ctrl-C (143 SIGTERM) before it was done.";

// The root folder is read before main() starts, so the program starts once more in the right one.
void StartIn(const std::string& root, char** argv) {
  const char* current = std::getenv("BTHAL_ROOT");
  if (current != nullptr && current == root) return;
  setenv("BTHAL_ROOT", root.c_str(), 1);
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  execv(self.c_str(), argv);
  throw bthalctl::Failure(bthalctl::WithErrno("cannot start in " + root));
}

int End(ExitCode code, const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "bthalctl: %s\n", text.c_str());
  return static_cast<int>(code);
}

// In the groups in which --help shows them.
void AddCommands(CLI::App& app, const bthalctl::Options& options) {
  size_t grouped = 0;
  const auto group = [&](const char* name) {
    const std::vector<CLI::App*> commands = app.get_subcommands({});
    for (; grouped < commands.size(); ++grouped) commands[grouped]->group(name);
  };
  bthalctl::AddUp(app, options);
  bthalctl::AddDown(app, options);
  bthalctl::AddStatus(app, options);
  bthalctl::AddInfo(app, options);
  bthalctl::AddCmd(app, options);
  bthalctl::AddScan(app, options);
  bthalctl::AddMonitor(app, options);
  bthalctl::AddCapture(app, options);
  bthalctl::AddTimeline(app, options);
  bthalctl::AddLoopback(app, options);
  bthalctl::AddPeer(app, options);
  group("Bluetooth");
  bthalctl::AddDoctor(app, options);
  bthalctl::AddDebug(app, options);
  bthalctl::AddReport(app, options);
  bthalctl::AddCrashes(app, options);
  bthalctl::AddActivity(app, options);
  group("Diagnostics");
  bthalctl::AddAfh(app, options);
  bthalctl::AddSar(app, options);
  bthalctl::AddInject(app, options);
  bthalctl::AddCcc(app, options);
  bthalctl::AddEwp(app, options);
  bthalctl::AddResidency(app, options);
  group("The service's extensions");
  bthalctl::AddServeH4(app, options);
  bthalctl::AddPrepareRoot(app, options);
  group("Other stacks, other boards");
  bthalctl::AddCompletion(app, options);
  group("This program");
}

}  // namespace

int main(int argc, char** argv) {
  if (bthalctl::IsExtcapCall(argc, argv)) return bthalctl::RunExtcap(argc, argv);
  // The runtime's own information lines are not for users, unless they ask for a level.
  if (std::getenv("BTHAL_LOG") == nullptr) __android_log_set_minimum_priority(ANDROID_LOG_WARN);
  CLI::App app("Client of the Bluetooth service.", "bthalctl");
  bthalctl::Options options;
  app.require_subcommand(1);
  app.footer(kFooter);
  app.add_option_function<std::string>(
         "--root", [argv](const std::string& root) { StartIn(root, argv); },
         "root folder of the handset (default: BTHAL_ROOT, else /)")
      ->type_name("DIR")
      ->trigger_on_parse();
  app.add_option("--wait", options.wait_seconds, "seconds to wait for the service to appear")
      ->capture_default_str()
      ->take_last()
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 3600.0).description(""));
  app.add_flag("--no-holder", options.no_holder,
               "attach to the service itself, even if \"up\" holds Bluetooth");
  AddCommands(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining(true);
    const std::string what = unknown.empty() || app.get_subcommands().size() == 1
                                 ? error.what()
                                 : "there is no command \"" + unknown.front() + "\"";
    return End(ExitCode::kUsage, what + "; --help tells more");
  } catch (const bthalctl::Failure& failure) {
    return End(failure.code(), failure.what());
  } catch (const bthalctl::Interrupted& interrupted) {
    return End(static_cast<ExitCode>(128 + interrupted.signal), "interrupted");
  } catch (const std::exception& error) {
    return End(ExitCode::kFailed, error.what());
  }
  return 0;
}
