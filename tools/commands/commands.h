// The commands of bthalctl, one file each: AddX declares one with its options. A command ends by
// returning or by throwing Failure.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/link/hci_link.h"

namespace bthalctl {

// What the options before the command say.
struct Options {
  double wait_seconds = 2;  // for the service to appear
  bool no_holder = false;   // attach even where a holder could be asked

  std::chrono::milliseconds wait() const { return Milliseconds(wait_seconds); }
};

// What every command's own options begin with.
struct CommandValues {
  bool json = false;
};

// A command that is being declared, and the options that run() will get.
template <typename Values>
struct Declared {
  CLI::App& command;
  Values& values;
};

// Puts a command into the command line: its name, what --help says of it, and of its flag --json
// (null: it has none).
template <typename Values>
Declared<Values> AddCommand(CLI::App& parent, const Options& options,
                            void (*run)(const Options&, const Values&), const char* name,
                            const char* what, const char* json = nullptr) {
  const auto values = std::make_shared<Values>();
  CLI::App* const command = parent.add_subcommand(name, what);
  if (json != nullptr) command->add_flag("--json", values->json, json);
  command->callback([&options, values, run] { run(options, *values); });
  return {*command, *values};
}

// An option that takes seconds, of which -t is an example.
inline void AddSeconds(CLI::App& command, const char* names, double& seconds, const char* what,
                       double least, double most) {
  CLI::Option* const option = command.add_option(names, seconds, what);
  option->type_name("SECONDS")->check(CLI::Range(least, most).description(""));
  if (seconds > 0) option->capture_default_str();
}

// The holder's attachment when there is a holder, else one of the command's own. From here on
// SIGINT and SIGTERM are Interrupted.
std::unique_ptr<HciLink> OpenLink(const Options& options);

// What the service writes for its debug call: the report, or what the options ask for. Throws
// Failure(kNoService), also when it has not answered within wait.
std::string TakeReport(const Options& options, const std::vector<std::string>& debug_options,
                       std::chrono::milliseconds wait);
// What the service answers to "state", by name: how it reaches the controller, and the steps of the
// last bring-up as "step.1" and so on.
std::map<std::string, std::string> TakeState(const Options& options,
                                             std::chrono::milliseconds wait);

void AddUp(CLI::App& app, const Options& options);
void AddDown(CLI::App& app, const Options& options);
void AddStatus(CLI::App& app, const Options& options);
void AddInfo(CLI::App& app, const Options& options);
void AddCmd(CLI::App& app, const Options& options);
void AddScan(CLI::App& app, const Options& options);
void AddCapture(CLI::App& app, const Options& options);
void AddMonitor(CLI::App& app, const Options& options);
void AddTimeline(CLI::App& app, const Options& options);
void AddDebug(CLI::App& app, const Options& options);
void AddReport(CLI::App& app, const Options& options);
void AddCrashes(CLI::App& app, const Options& options);
void AddAfh(CLI::App& app, const Options& options);
void AddSar(CLI::App& app, const Options& options);
void AddInject(CLI::App& app, const Options& options);
void AddCcc(CLI::App& app, const Options& options);
void AddEwp(CLI::App& app, const Options& options);
void AddResidency(CLI::App& app, const Options& options);
void AddDoctor(CLI::App& app, const Options& options);
void AddActivity(CLI::App& app, const Options& options);
void AddLoopback(CLI::App& app, const Options& options);
void AddPeer(CLI::App& app, const Options& options);  // read-name, echo
void AddServeH4(CLI::App& app, const Options& options);
void AddPrepareRoot(CLI::App& app, const Options& options);
void AddCompletion(CLI::App& app, const Options& options);

}  // namespace bthalctl
