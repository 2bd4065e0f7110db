// What a report says, as JSON: made in one place, drawn as a page, compared, printed.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/commands/commands.h"

namespace bthalctl {

struct ReportRequest {
  double seconds = 0;  // of traffic to record, where a service runs
  bool with_addresses = false;
  bool with_devices = true;  // whether this machine's ports and switches belong to it
};

// Of the root folder, and of its service if one runs:
//   source, live, made      where from, whether a service answered, date and time
//   verdict                 state ("up", "down", "failed", "stuck", "unknown"), text: a sentence
//   transport               as the service says; null without one
//   history                 see ToJson(History), without packets; "traffic": what passed
//   crashes                 see CollectCrashes(), each with "last_records", the last lines before
//   it quality, residency      what the log has of quality reports and of the controller's times
//   activity                see ReadActivityTables(); null without a service
//   findings                what, level, text, advice: see "bthalctl doctor"
//   texts                   name, text, left_out (bytes) of logs and reports
// Valid UTF-8 throughout. Payload of data packets is not in it; addresses only if asked for.
nlohmann::json MakeReport(const Options& options, const ReportRequest& request);

// One that was kept as JSON. Throws Failure, which begins with name, for a text that is none.
nlohmann::json ParseReport(const std::string& text, const std::string& name);

// A page that shows one report, or two beside each other with their differences marked.
std::string ReportPage(const nlohmann::json& report);
std::string ComparisonPage(const nlohmann::json& one, const nlohmann::json& other);

}  // namespace bthalctl
