#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/link/attachment.h"
#include "tools/link/residency_reader.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

struct ResidencyOptions {
  uint64_t count = 1;  // 0: no end
  double interval_seconds = 1;
  bool json = false;
};

// The service looks for a provider once a second.
constexpr std::chrono::seconds kRegistrationTime{5};
// For the controller's answer to the query that a reading sets off.
constexpr std::chrono::milliseconds kSettleTime{500};

std::string StateName(int id) {
  const char* const names[] = {"idle", "active", "transmit", "receive"};
  return id >= 0 && id < 4 ? names[id] : "state " + std::to_string(id);
}

Json ToJson(const std::vector<StateResidency>& states) {
  Json out = Json::array();
  for (const StateResidency& state : states) {
    out.push_back({{"id", state.id},
                   {"state", StateName(state.id)},
                   {"total_ms", state.totalTimeInStateMs},
                   {"entries", state.totalStateEntryCount},
                   {"last_entry_ms", state.lastEntryTimestampMs}});
  }
  return out;
}

void Print(const std::vector<StateResidency>& states) {
  std::printf("%-10s %14s %12s %20s\n", "state", "total", "entries", "last entered");
  for (const StateResidency& state : states) {
    char last[32] = "never";
    if (state.lastEntryTimestampMs != 0) {
      std::snprintf(last, sizeof last, "%.3f s",
                    static_cast<double>(state.lastEntryTimestampMs) / 1000);
    }
    std::printf("%-10s %12.3f s %12lld %20s\n", StateName(state.id).c_str(),
                static_cast<double>(state.totalTimeInStateMs) / 1000,
                static_cast<long long>(state.totalStateEntryCount), last);
  }
}

// Lets time pass; Ctrl-C is Interrupted.
void Pause(std::chrono::milliseconds time) {
  std::vector<pollfd> nothing;
  Wait(nothing, Clock::now() + time);
}

void Residency(const Options& options, const ResidencyOptions& residency) {
  FindService(options.wait());
  CatchStopSignals();
  ResidencyReader reader;
  try {
    reader.WaitForBluetooth(kRegistrationTime);
    reader.Read();  // makes the service ask
    Pause(kSettleTime);
    for (uint64_t i = 0; residency.count == 0 || i < residency.count; ++i) {
      if (i > 0) {
        Pause(std::chrono::milliseconds(static_cast<int64_t>(residency.interval_seconds * 1000)));
        if (!residency.json) std::puts("");
      }
      const std::vector<StateResidency> states = reader.Read();
      if (residency.json) {
        std::puts(ToJson(states).dump().c_str());
      } else {
        Print(states);
      }
      std::fflush(stdout);
    }
  } catch (const Interrupted&) {
    // The way to end it.
  }
}

}  // namespace

void AddResidency(CLI::App& app, const Options& options) {
  auto residency = std::make_shared<ResidencyOptions>();
  CLI::App* command =
      app.add_subcommand("residency", "how long the controller idled, was active, sent, received");
  command->add_option("-n,--count", residency->count, "readings; 0: until Ctrl-C")
      ->capture_default_str();
  command->add_option("-i,--interval", residency->interval_seconds, "seconds between readings")
      ->capture_default_str()
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 3600.0).description(""));
  command->add_flag("--json", residency->json, "one JSON array a reading, times in ms");
  command->footer(
      "Totals since the service started, over all times in which Bluetooth was on; the last entry\n"
      "is in seconds since the machine's boot. The service tells them to the power-statistics\n"
      "provider only: this command plays it while it runs, which takes the service up to a second\n"
      "to notice, and ends with 4 where there is one already.");
  command->callback([&options, residency] { Residency(options, *residency); });
}

}  // namespace bthalctl
