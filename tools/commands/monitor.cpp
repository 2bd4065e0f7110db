#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/hci/decoder.h"
#include "tools/link/attachment.h"
#include "tools/link/holder.h"

namespace bthalctl {
namespace {

struct MonitorOptions : CommandValues {
  uint64_t count = 0;  // 0: no end
  double seconds = 0;  // 0: no end
};

std::string WallTime() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local = {};
  localtime_r(&now.tv_sec, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min,
                local.tm_sec, now.tv_nsec / 1'000'000);
  return text;
}

void PrintPassing(const HolderLink::Passing& passing, bool json) {
  if (json) {
    const nlohmann::json line = {{"time", WallTime()},
                                 {"direction", passing.from_controller ? "in" : "out"},
                                 {"type", TypeName(passing.packet.type)},
                                 {"text", Describe(passing.packet)},
                                 {"bytes", HexText(passing.packet.bytes)}};
    std::puts(line.dump().c_str());
  } else {
    const std::string arrow =
        passing.from_controller ? Paint(Colour::kGreen, ">") : Paint(Colour::kBlue, "<");
    std::printf("%s %s %s\n", Paint(Colour::kGrey, WallTime()).c_str(), arrow.c_str(),
                Describe(passing.packet).c_str());
  }
  std::fflush(stdout);
}

void Monitor(const Options& options, const MonitorOptions& monitor) {
  const std::unique_ptr<HolderLink> shared = HolderLink::Connect();
  std::unique_ptr<HciLink> own;
  if (shared != nullptr) {
    CatchStopSignals();
    shared->Watch();
  } else {
    own = OpenLink(options);
  }
  const auto next = [&]() -> std::optional<HolderLink::Passing> {
    if (shared != nullptr) return shared->TakePassing();
    std::optional<Packet> packet = own->Take();
    if (!packet) return std::nullopt;
    return HolderLink::Passing{std::move(*packet), true};
  };
  std::fprintf(stderr, shared != nullptr ? "following the holder\n"
                                         : "attached as the stack: only what arrives is seen\n");
  const TimePoint deadline = EndAfter(monitor.seconds);
  uint64_t shown = 0;
  try {
    do {
      while (std::optional<HolderLink::Passing> passing = next()) {
        PrintPassing(*passing, monitor.json);
        if (++shown == monitor.count) return;
      }
    } while (WaitReadable(shared != nullptr ? shared->fd() : own->fd(), deadline));
  } catch (const Interrupted&) {
    // The way to end it.
  }
}

}  // namespace

void AddMonitor(CLI::App& app, const Options& options) {
  auto [command, monitor] =
      AddCommand(app, options, Monitor, "monitor", "show HCI traffic, one line per packet",
                 "one JSON object per line");
  command.add_option("-n,--count", monitor.count, "end after so many packets");
  AddSeconds(command, "-t,--time", monitor.seconds, "end after so many seconds", 0, 86400);
  command.footer(
      "With a holder (\"up\") it sees both directions of all its clients:\n"
      "  bthalctl up --detach; bthalctl monitor & bthalctl scan");
}

}  // namespace bthalctl
