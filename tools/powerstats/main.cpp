// zvkpowerstats: plays the power-statistics service beside a simulated handset.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <mutex>
#include <string>

#include "tools/powerstats/provider.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr char kFooter[] =
    "The root folder of the handset is BTHAL_ROOT. Prints \"ready\", then what happens. Takes a\n"
    "reading on SIGUSR1, for each line on standard input, and every --interval. SIGINT and\n"
    "SIGTERM end it.\n"
    "Exit codes: 0 ended as asked, 1 failed (one line says why), 2 wrong usage.";

std::mutex output_mutex;

void Print(const std::string& text) {
  const std::lock_guard<std::mutex> lock(output_mutex);
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// Before any thread is started, so that all of them inherit it.
int BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Returns false at the end of the input.
bool TakeLines() {
  char data[256];
  const ssize_t count = read(STDIN_FILENO, data, sizeof(data));
  return count > 0;
}

void PrintReadings(powerstats::Provider& provider) {
  std::string text;
  for (const powerstats::Reading& reading : provider.Read()) {
    if (!reading.mistake.empty())
      text += reading.entity + ": no reading: " + reading.mistake + "\n";
    for (const powerstats::StateResidency& state : reading.states) {
      text += reading.entity + " " + powerstats::StateName(reading.entity, state.id) + ": " +
              std::to_string(state.totalTimeInStateMs) + " ms, entered " +
              std::to_string(state.totalStateEntryCount) + " times, last at " +
              std::to_string(state.lastEntryTimestampMs) + " ms\n";
    }
  }
  Print(text.empty() ? "nobody has registered\n" : text);
}

// Until SIGINT or SIGTERM. interval_ms below 0: no readings by time.
void Serve(powerstats::Provider& provider, int signals, int interval_ms) {
  pollfd ready[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  for (;;) {
    const int count = poll(ready, 2, interval_ms);
    if (count < 0) continue;  // stopped and continued
    if (count > 0 && (ready[0].revents & POLLIN) != 0) {
      signalfd_siginfo info{};
      if (read(signals, &info, sizeof(info)) != sizeof(info)) return;
      if (info.ssi_signo != SIGUSR1) return;
    }
    if (count > 0 && ready[0].revents == 0 && !TakeLines()) {
      ready[1].fd = -1;
      continue;
    }
    PrintReadings(provider);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Plays the power-statistics service: collects residency from those that register.");
  app.footer(kFooter);
  double interval_seconds = -1;
  app.add_option("--interval", interval_seconds, "seconds between readings (default: none by time)")
      ->check(CLI::Range(0.001, 86400.0));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  const int signals = BlockSignals();
  const auto provider =
      powerstats::Provider::Publish([](const std::string& line) { Print(line + "\n"); });
  if (provider == nullptr) {
    std::fputs("zvkpowerstats: another power-statistics service runs here\n", stderr);
    return kFailed;
  }
  Print("ready\n");
  Serve(*provider, signals, interval_seconds < 0 ? -1 : static_cast<int>(interval_seconds * 1000));
  std::fflush(stdout);
  _exit(0);  // the pool's threads may be inside a call
}
