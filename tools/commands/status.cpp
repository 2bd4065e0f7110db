#include <root_folder/root_folder.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/evidence/report_sections.h"
#include "tools/evidence/transport_records.h"
#include "tools/link/attachment.h"
#include "tools/link/holder.h"
#include "tools/link/holder_protocol.h"
#include "tools/log/transport_state.h"
#include "tools/log/whole_log.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

// No call of the service tells of it. Its log does, as far as it reaches back, else its records.
Json Transport(int pid, const Options& options) {
  TransportState state(pid);
  ReadWholeLog(root_folder::Resolve("/run/bthal/log"), [&](const std::string& text) {
    if (const std::optional<LogLine> line = ParseLogLine(text)) state.Feed(*line);
  });
  if (state.phase() == TransportState::Phase::kUnknown) {
    for (const Section& part : CutReport(TakeReport(options))) {
      if (part.name == "last") ReadTransportRecords(part.text, &state);
    }
  }
  const auto text_or_null = [](const std::string& text) {
    return text.empty() ? Json() : Json(text);
  };
  Json transport = {{"kind", text_or_null(state.KindText())},
                    {"state", text_or_null(state.PhaseText())},
                    {"text", state.Describe()}};
  if (!state.path().empty()) transport["path"] = state.path();
  if (state.line_baud()) transport["line_baud"] = *state.line_baud();
  if (state.low_power()) transport["low_power"] = *state.low_power();
  return transport;
}

// Throws Failure(kNoService) when there is no service.
Json Status(const Options& options) {
  const std::string& root = root_folder::Path();
  Json status = {{"root", root.empty() ? "/" : root}};
  const auto service = FindService(options.wait());
  service
      ->getDebugInfo([&](const ::android::hidl::base::V1_0::DebugInfo& info) {
        status["service"] = {{"pid", info.pid}};
        status["transport"] = Transport(info.pid, options);
      })
      .isOk();
  CatchStopSignals();
  const auto holder = AskHolder(holder::kStatus, std::chrono::seconds(5));
  status["up"] = holder.has_value();
  if (holder) status["holder"] = Json::parse(*holder);
  return status;
}

void Print(const Json& status) {
  std::printf("root       %s\n", status["root"].get<std::string>().c_str());
  std::printf("service    running, process %d\n", status["service"].value("pid", 0));
  if (status.contains("transport")) {
    std::printf("transport  %s\n", status["transport"]["text"].get<std::string>().c_str());
  }
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

}  // namespace

void AddStatus(CLI::App& app, const Options& options) {
  auto as_json = std::make_shared<bool>(false);
  CLI::App* command =
      app.add_subcommand("status", "the service, its transport, the holder and its counters");
  command->add_flag("--json", *as_json, "for a script");
  command->callback([&options, as_json] {
    const Json status = Status(options);
    if (*as_json) {
      std::puts(status.dump(2).c_str());
    } else {
      Print(status);
    }
  });
}

}  // namespace bthalctl
