#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/hci/heard_peers.h"
#include "tools/link/le_peer.h"

namespace bthalctl {
namespace {

struct ScanOptions : CommandValues {
  double seconds = 5;
  bool passive = false;
};

struct Device {
  Advertisement last;
  unsigned reports = 0;
};

void PrintHeard(const std::vector<Device>& devices) {
  for (const Device& device : devices) {
    const Advertisement& a = device.last;
    std::printf("%s  %-6s  %4d dBm  %4u reports  %-15s %s\n",
                Paint(Colour::kBold, AddressText(a.address)).c_str(),
                a.random ? "random" : "public", a.rssi, device.reports,
                a.connectable ? "connectable" : "", a.name.c_str());
  }
  std::printf("%zu devices heard\n", devices.size());
}

void PrintHeardJson(const std::vector<Device>& devices) {
  nlohmann::json list = nlohmann::json::array();
  for (const Device& device : devices) {
    const Advertisement& a = device.last;
    list.push_back({{"address", AddressText(a.address)},
                    {"random", a.random},
                    {"connectable", a.connectable},
                    {"rssi", a.rssi},
                    {"reports", device.reports},
                    {"name", a.name}});
  }
  std::puts(list.dump(2).c_str());
}

void ScanAndList(const Options& options, const ScanOptions& scan) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  ResetController(exchange);
  std::map<Bytes, Device> heard;
  const auto on_report = [&](const Advertisement& report) {
    Device& device = heard[report.address];
    ++device.reports;
    Advertisement merged = report;
    if (report.name.empty()) merged.name = device.last.name;
    if (report.scan_response) merged.connectable = device.last.connectable;
    device.last = merged;
    return false;
  };
  try {
    Scan(exchange, !scan.passive, Clock::now() + Milliseconds(scan.seconds), on_report);
  } catch (const Interrupted&) {
    // Listening ends early; what was heard counts.
  }
  std::vector<Device> devices;
  devices.reserve(heard.size());
  for (const auto& [address, device] : heard) devices.push_back(device);
  std::stable_sort(devices.begin(), devices.end(),
                   [](const Device& a, const Device& b) { return a.last.rssi > b.last.rssi; });
  std::vector<std::string> peers;
  peers.reserve(devices.size());
  for (const Device& device : devices) {
    peers.push_back(device.last.name.empty() ? AddressText(device.last.address) : device.last.name);
  }
  KeepHeardPeers(peers);
  if (scan.json) {
    PrintHeardJson(devices);
  } else {
    PrintHeard(devices);
  }
}

}  // namespace

void AddScan(CLI::App& app, const Options& options) {
  auto [command, scan] =
      AddCommand(app, options, ScanAndList, "scan",
                 "list LE advertisers (resets the controller first)", "for a script");
  AddSeconds(command, "-t,--time", scan.seconds, "seconds to listen", 0.1, 86400);
  command.add_flag("--passive", scan.passive, "only listen, send no scan requests");
  command.footer("Example:\n  bthalctl scan -t 3 --json");
}

}  // namespace bthalctl
