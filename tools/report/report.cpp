#include "tools/report/report.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/doctor/findings.h"
#include "tools/evidence/activity_report.h"
#include "tools/evidence/crash_list.h"
#include "tools/evidence/evidence_file.h"
#include "tools/evidence/report_sections.h"
#include "tools/history/history_source.h"
#include "tools/link/attachment.h"
#include "tools/log/user_data.h"
#include "tools/report/log_findings.h"
#include "tools/report/verdict.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

constexpr size_t kTextLimit = 200 << 10;   // bytes of one text
constexpr size_t kTextsLimit = 800 << 10;  // of all
constexpr size_t kRecordsBeforeCrash = 12;

// The end of a text, without what is nobody's business, and how much of it was left out.
class Texts {
 public:
  explicit Texts(bool with_addresses) : with_addresses_(with_addresses) {}

  void Add(const std::string& name, const std::string& text) {
    std::string kept;
    for (const std::string& line : ::android::base::Split(text, "\n")) {
      const std::optional<LogLine> parsed = ParseLogLine(line);
      if (!parsed || !HoldsUserData(*parsed)) kept += line + "\n";
    }
    while (::android::base::EndsWith(kept, "\n\n")) kept.pop_back();
    if (!with_addresses_) kept = WithoutAddresses(std::move(kept));
    const size_t limit = std::min(kTextLimit, kTextsLimit - std::min(kTextsLimit, total_));
    const size_t left_out = kept.size() > limit ? kept.size() - limit : 0;
    kept.erase(0, left_out);
    total_ += kept.size();
    texts_.push_back({{"name", name}, {"text", std::move(kept)}, {"left_out", left_out}});
  }
  Json Take() { return std::move(texts_); }

 private:
  const bool with_addresses_;
  size_t total_ = 0;
  Json texts_ = Json::array();
};

// The last records in a core dump, which begins like a debug report.
Json LastRecords(const std::string& path) {
  Json records = Json::array();
  try {
    const std::string history = SectionsOf(ReadEvidence(path), {"history"});
    std::vector<std::string> lines = ::android::base::Split(history, "\n");
    lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
    const size_t from = lines.size() > kRecordsBeforeCrash ? lines.size() - kRecordsBeforeCrash : 0;
    for (size_t i = from; i < lines.size(); ++i) records.push_back(lines[i]);
  } catch (const Failure&) {
    // It is listed without them.
  }
  return records;
}

Json CrashesWithRecords(Texts& texts) {
  Json crashes = CollectCrashes();
  for (Json& crash : crashes) {
    crash["last_records"] = Json::array();
    for (Json& file : crash["files"]) {
      const std::string path = file["path"];
      const std::string name = path.substr(path.rfind('/') + 1);
      file["name"] = name;
      const bool core = name.find("coredump_bt_") == 0 && name.find("dump_bt_socdump") != 4 &&
                        name.find("socdump") == std::string::npos &&
                        name.find("chredump") == std::string::npos;
      if (core) crash["last_records"] = LastRecords(path);
      if (!core && name.find("coredump") == 0) continue;  // the controller's memory
      try {
        texts.Add(name, ReadEvidence(path));
      } catch (const Failure&) {
        // What it is instead stands in "mistake".
      }
    }
  }
  return crashes;
}

Json FindingsOf(bool with_devices) {
  Findings findings;
  if (with_devices) {
    CheckPort(findings);
    CheckPower(findings);
  }
  CheckFirmware(findings);
  CheckAddress(findings);
  if (with_devices) CheckKernelFiles(findings);
  CheckStorage(findings);
  Json all = Json::array();
  for (const Finding& finding : findings) {
    all.push_back(ToJson(finding));
  }
  return all;
}

// How the service reaches the controller.
Json TransportOf(const std::map<std::string, std::string>& state) {
  Json transport = Json::object();
  for (const auto& [name, value] : state) {
    if (!::android::base::StartsWith(name, "step.")) transport[name] = value;
  }
  return transport;
}

Json TrafficOf(const History& history) {
  uint64_t packets[2] = {}, bytes[2] = {};
  for (const HistoryPacket& packet : history.packets) {
    ++packets[packet.from_controller ? 1 : 0];
    bytes[packet.from_controller ? 1 : 0] += packet.size;
  }
  return {{"to_controller", {{"packets", packets[0]}, {"bytes", bytes[0]}}},
          {"from_controller", {{"packets", packets[1]}, {"bytes", bytes[1]}}}};
}

}  // namespace

Json MakeReport(const Options& options, const ReportRequest& request) {
  Texts texts(request.with_addresses);
  Json report = {{"source", root_folder::Path().empty() ? "/" : root_folder::Path()},
                 {"made", LocalTimeText(std::time(nullptr))},
                 {"live", true},
                 {"transport", nullptr},
                 {"activity", nullptr}};
  History history;
  std::vector<LogLine> log;
  try {
    history = RecordHistory(options, request.seconds);
    log = ReadServiceLog();
    report["transport"] = TransportOf(TakeState(options, kAnswerTime));
    const std::string debug = TakeReport(options, {}, kAnswerTime);
    for (const Section& section : CutReport(debug)) {
      if (section.name == "crashinfo" || section.name == "coredump") continue;  // below, as files
      texts.Add("debug report: " + section.name, section.text);
      if (section.name == "activity") report["activity"] = ReadActivityTables(section.text);
    }
  } catch (const Failure& failure) {
    if (failure.code() != ExitCode::kNoService) throw;
    report["live"] = false;
    log = ReadServiceLog();
    history = HistoryOfFiles(log);
  }
  report["history"] = ToJson(history);
  report["history"].erase("packets");
  report["history"]["traffic"] = TrafficOf(history);
  report["crashes"] = CrashesWithRecords(texts);
  report["quality"] = QualityReports(log);
  report["residency"] = LastResidency(log);
  report["findings"] = FindingsOf(request.with_devices);
  std::string text;
  ::android::base::ReadFileToString(root_folder::Resolve("/run/bthal/log"), &text);
  texts.Add("log", text);
  report["texts"] = texts.Take();
  report["verdict"] = VerdictOf(report);
  // Files hold whatever they hold; from here on it is text.
  report = Json::parse(report.dump(-1, ' ', false, Json::error_handler_t::replace));
  if (!request.with_addresses) MaskAddresses(&report);
  return report;
}

Json ParseReport(const std::string& text, const std::string& name) {
  // A number beyond what JSON holds exactly counts for none: it may not be read as an integer.
  const auto without_huge = [](int, Json::parse_event_t event, Json& value) {
    constexpr double kMost = 9007199254740992;  // 2^53
    if (event != Json::parse_event_t::value || !value.is_number()) return true;
    if (std::abs(value.get<double>()) > kMost) value = nullptr;
    return true;
  };
  Json report = Json::parse(text, without_huge, false);
  try {
    ReportPage(report);  // reads all of it
  } catch (const Json::exception&) {
    throw Failure(name + ": it is no report of bthalctl report --json");
  }
  return report;
}

}  // namespace bthalctl
