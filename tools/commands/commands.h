// The commands of bthalctl, one file each. AddX puts a command into the command line; its callback
// runs it. All end by returning or by throwing Failure.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <string>

#include "tools/link/hci_link.h"

namespace bthalctl {

// What the options before the command say.
struct Options {
  double wait_seconds = 2;  // for the service to appear
  bool no_holder = false;   // attach even where a holder could be asked

  std::chrono::milliseconds wait() const {
    return std::chrono::milliseconds(static_cast<int64_t>(wait_seconds * 1000));
  }
};

// The holder's attachment when there is a holder, else one of the command's own. From here on
// SIGINT and SIGTERM are Interrupted.
std::unique_ptr<HciLink> OpenLink(const Options& options);

// The service's debug report.
std::string TakeReport(const Options& options);

void AddUp(CLI::App& app, const Options& options);
void AddDown(CLI::App& app);
void AddStatus(CLI::App& app, const Options& options);
void AddInfo(CLI::App& app, const Options& options);
void AddCmd(CLI::App& app, const Options& options);
void AddScan(CLI::App& app, const Options& options);
void AddMonitor(CLI::App& app, const Options& options);
void AddDebug(CLI::App& app, const Options& options);
void AddCrashes(CLI::App& app);
void AddAfh(CLI::App& app, const Options& options);
void AddSar(CLI::App& app, const Options& options);
void AddInject(CLI::App& app, const Options& options);
void AddCcc(CLI::App& app, const Options& options);
void AddEwp(CLI::App& app, const Options& options);
void AddResidency(CLI::App& app, const Options& options);
void AddActivity(CLI::App& app, const Options& options);
void AddLoopback(CLI::App& app, const Options& options);
void AddPeer(CLI::App& app, const Options& options);  // read-name, echo
void AddServeH4(CLI::App& app, const Options& options);
void AddPrepareRoot(CLI::App& app);

}  // namespace bthalctl
