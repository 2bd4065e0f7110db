#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/mailbox.h"
#include "tools/commands/commands.h"
#include "tools/link/attachment.h"
#include "tools/powerstats/provider.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;
using States = std::vector<powerstats::StateResidency>;

struct ResidencyOptions : CommandValues {
  uint64_t count = 1;  // 0: no end
  double interval_seconds = 1;
};

// The service looks for a provider once a second.
constexpr std::chrono::seconds kRegistrationTime{5};
// For the controller's answer to the query that a reading sets off.
constexpr std::chrono::milliseconds kSettleTime{500};

constexpr char kBluetooth[] = "Bluetooth";

Json ToJson(const States& states) {
  Json out = Json::array();
  for (const auto& state : states) {
    out.push_back({{"id", state.id},
                   {"state", powerstats::StateName(kBluetooth, state.id)},
                   {"total_ms", state.totalTimeInStateMs},
                   {"entries", state.totalStateEntryCount},
                   {"last_entry_ms", state.lastEntryTimestampMs}});
  }
  return out;
}

void PrintStates(const States& states) {
  std::printf("%-10s %14s %12s %20s\n", "state", "total", "entries", "last entered");
  for (const auto& state : states) {
    char last[32] = "never";
    if (state.lastEntryTimestampMs != 0) {
      std::snprintf(last, sizeof last, "%.3f s",
                    static_cast<double>(state.lastEntryTimestampMs) / 1000);
    }
    std::printf("%-10s %12.3f s %12lld %20s\n", powerstats::StateName(kBluetooth, state.id).c_str(),
                static_cast<double>(state.totalTimeInStateMs) / 1000,
                static_cast<long long>(state.totalStateEntryCount), last);
  }
}

// Lets time pass; Ctrl-C is Interrupted.
void Pause(std::chrono::milliseconds time) {
  std::vector<pollfd> nothing;
  Wait(nothing, Clock::now() + time);
}

// The totals that the controller told last; nothing while Bluetooth is not registered. Makes the
// service ask the controller for fresh ones.
std::optional<States> Read(powerstats::Provider& provider) {
  for (const powerstats::Reading& reading : provider.Read()) {
    if (reading.entity != kBluetooth) continue;
    if (reading.mistake.empty()) return reading.states;
    throw Failure(ExitCode::kNoService, "the service died during the call");
  }
  return std::nullopt;
}

void Residency(const Options& options, const ResidencyOptions& residency) {
  FindService(options.wait());
  CatchStopSignals();
  // Shared with the provider, which may be told of something to the end of the process.
  const auto news = std::make_shared<Mailbox<std::string>>();
  const auto provider =
      powerstats::Provider::Publish([news](const std::string& line) { news->Put(line); });
  if (provider == nullptr) {
    throw Failure(
        ExitCode::kBusy,
        "another process is the power-statistics provider: it alone is told the residency");
  }
  try {
    const TimePoint deadline = Clock::now() + kRegistrationTime;
    while (!Read(*provider)) {
      if (!WaitReadable(news->fd(), deadline)) {
        throw Failure("Bluetooth did not register for power statistics: is it up? (bthalctl up)");
      }
      while (news->Take()) continue;
    }
    Pause(kSettleTime);
    for (uint64_t i = 0; residency.count == 0 || i < residency.count; ++i) {
      if (i > 0) {
        Pause(Milliseconds(residency.interval_seconds));
        if (!residency.json) std::puts("");
      }
      const std::optional<States> states = Read(*provider);
      if (!states) throw Failure("Bluetooth went off");
      if (residency.json) {
        std::puts(ToJson(*states).dump().c_str());
      } else {
        PrintStates(*states);
      }
      std::fflush(stdout);
    }
  } catch (const Interrupted&) {
    // The way to end it.
  }
}

}  // namespace

void AddResidency(CLI::App& app, const Options& options) {
  auto [command, residency] =
      AddCommand(app, options, Residency, "residency",
                 "how long the controller idled, was active, sent, received",
                 "one JSON array per reading, times in ms");
  command.add_option("-n,--count", residency.count, "readings; 0: until Ctrl-C")
      ->capture_default_str();
  AddSeconds(command, "-i,--interval", residency.interval_seconds, "seconds between readings", 0.1,
             3600);
  command.footer(
      "Totals since the service started, over all times in which Bluetooth was on; the last entry\n"
      "is in seconds since the machine's boot. The service tells them to the power-statistics\n"
      "provider only. This command is the provider while it runs, which the service notices\n"
      "within a second; where there is one already, it ends with 4.");
}

}  // namespace bthalctl
