#include <root_folder/root_folder.h>

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/link/attachment.h"
#include "tools/link/holder.h"
#include "tools/link/holder_protocol.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

Json Transport(const Options& options) {
  std::map<std::string, std::string> fields = TakeState(options, kAnswerTime);
  Json transport = {{"kind", nullptr}, {"state", fields["state"]}};
  std::string text;
  if (const std::string kind = fields["transport"]; !kind.empty()) {
    transport["kind"] = kind;
    text = kind;
    if (const std::string path = fields["path"]; !path.empty()) {
      transport["path"] = path;
      text += " " + path;
    }
    text += ", ";
  }
  text += fields["state"];
  if (const std::string loss = fields["loss"]; !loss.empty()) text += ": " + loss;
  if (const std::string baud = fields["line_baud"]; !baud.empty()) {
    transport["line_baud"] = std::stoul(baud);
    text += ", " + baud + " bit/s";
  }
  if (const std::string low_power = fields["low_power"]; !low_power.empty()) {
    transport["low_power"] = low_power == "on";
    text += ", low power " + low_power;
  }
  transport["text"] = text;
  return transport;
}

// Throws Failure(kNoService) when there is no service.
Json Status(const Options& options) {
  const std::string& root = root_folder::Path();
  Json status = {{"root", root.empty() ? "/" : root}};
  status["transport"] = Transport(options);
  FindService(options.wait())
      ->getDebugInfo([&](const ::android::hidl::base::V1_0::DebugInfo& info) {
        status["service"] = {{"pid", info.pid}};
      })
      .isOk();
  CatchStopSignals();
  const auto holder = AskHolder(holder::kStatus, std::chrono::seconds(5));
  status["up"] = holder.has_value();
  if (holder) status["holder"] = Json::parse(*holder);
  return status;
}

void PrintStatus(const Json& status) {
  std::printf("root       %s\n", status["root"].get<std::string>().c_str());
  std::printf("service    running, process %d\n", status["service"].value("pid", 0));
  std::printf("transport  %s\n", status["transport"]["text"].get<std::string>().c_str());
  if (!status["up"]) {
    std::puts("bluetooth  not held by bthalctl");
    return;
  }
  const Json& holder = status["holder"];
  std::printf("bluetooth  %s for %lld s, held by process %d, %d clients\n",
              Paint(Colour::kGreen, "up").c_str(), holder["seconds"].get<long long>(),
              holder["pid"].get<int>(), holder["clients"].get<int>() - 1);
  for (const auto& [type, counts] : holder["packets"].items()) {
    const auto to = counts["to_controller"].get<unsigned long long>();
    const auto from = counts["from_controller"].get<unsigned long long>();
    if (to > 0 && from > 0) {
      std::printf("%-10s %llu to the controller, %llu from it\n", type.c_str(), to, from);
    } else if (to + from > 0) {
      std::printf("%-10s %llu %s the controller\n", type.c_str(), to + from,
                  to > 0 ? "to" : "from");
    }
  }
}

void ShowStatus(const Options& options, const CommandValues& values) {
  const Json status = Status(options);
  if (values.json) {
    std::puts(status.dump(2).c_str());
  } else {
    PrintStatus(status);
  }
}

}  // namespace

void AddStatus(CLI::App& app, const Options& options) {
  AddCommand(app, options, ShowStatus, "status",
             "the service, its transport, the holder and its counters", "for a script");
}

}  // namespace bthalctl
