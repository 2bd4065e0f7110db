#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "tools/evidence/crash_list.h"
#include "tools/log/log_line.h"
#include "tools/report/page_style.h"
#include "tools/report/report.h"
#include "tools/report/svg.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

// The waits that the controller needs in a step, at its end or at its beginning.
struct RequiredWait {
  const char* step;
  double seconds;
};
constexpr RequiredWait kRequiredWaits[] = {
    {"serial port", 0.05}, {"download mode", 0.05}, {"firmware starts", 0.5}};

std::string TextOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

std::string Cell(const std::string& text) { return "<td>" + Escape(text) + "</td>"; }
std::string NumberCell(const std::string& text) {
  return "<td class=\"number\">" + Escape(text) + "</td>";
}

std::string Table(const std::string& caption, const std::vector<std::string>& heads,
                  const std::string& rows) {
  std::string out = "<table><caption>" + Escape(caption) + "</caption><thead><tr>";
  for (const std::string& head : heads) out += "<th scope=\"col\">" + Escape(head) + "</th>";
  return out + "</tr></thead><tbody>" + rows + "</tbody></table>\n";
}

std::string Folded(const std::string& name, const std::string& content) {
  return "<details><summary>" + Escape(name) + "</summary>" + content + "</details>\n";
}

std::string SecondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

std::string DrawVerdict(const Json& report) {
  const Json& verdict = report.at("verdict");
  std::string out = "<p class=\"verdict " + Escape(TextOf(verdict.at("state"))) + "\">" +
                    Escape(TextOf(verdict.at("text"))) + "</p>\n";
  out += "<p class=\"made\">Made on " + Escape(TextOf(report.at("made"))) + " from " +
         Escape(TextOf(report.at("source"))) +
         (report.at("live").get<bool>() ? ", with its running service" : ", without a service");
  if (report.at("transport").is_object()) {
    for (const auto& [name, value] : report.at("transport").items()) {
      out += "; " + Escape(name) + " " + Escape(TextOf(value));
    }
  }
  return out + ".</p>\n";
}

std::string DrawBringUp(const Json& report) {
  const Json& steps = report.at("history").at("steps");
  if (steps.empty()) return "<p>The log shows none.</p>\n";
  std::vector<BarRow> rows;
  std::string table;
  double end = 0;
  for (const Json& step : steps) {
    const std::string name = TextOf(step.at("name"));
    const double from = step.at("begin"), to = step.at("end");
    const bool failed = step.at("failed"), running = step.at("running");
    const std::string detail = TextOf(step.at("detail"));
    BarRow row{name, {}};
    row.bars.push_back({from, to,
                        failed    ? "failed"
                        : running ? "running"
                                  : "step",
                        name + ": " + SecondsText(to - from) + " s" +
                            (detail.empty() ? "" : ", " + detail) + (failed ? ", failed" : "")});
    double wait = 0;
    for (const RequiredWait& required : kRequiredWaits) {
      if (name == required.step && !failed) wait = std::min(required.seconds, to - from);
    }
    if (wait > 0) {
      row.bars.push_back({to - wait, to, "wait", "of it required: " + SecondsText(wait) + " s"});
    }
    rows.push_back(std::move(row));
    end = std::max(end, to);
    table += "<tr>" + Cell(name) + NumberCell(SecondsText(from)) +
             NumberCell(SecondsText(to - from)) + NumberCell(wait > 0 ? SecondsText(wait) : "") +
             Cell(detail) +
             Cell(failed    ? "failed"
                  : running ? "had not ended"
                            : "ok") +
             "</tr>";
  }
  std::string out = DrawRows("The steps of the bring-up, from its beginning on", rows, 0, end);
  out +=
      "<p class=\"legend\"><span class=\"key step\"></span> step <span class=\"key "
      "wait\"></span> of it a wait that the controller requires <span class=\"key "
      "failed\"></span> failed <span class=\"key running\"></span> had not ended</p>\n";
  out += Folded(
      "The steps as a table",
      Table("Steps of the bring-up",
            {"step", "begins, s", "takes, s", "of it required, s", "found", "result"}, table));
  return out;
}

std::string DrawTimeLine(const Json& report) {
  const Json& history = report.at("history");
  const double end = history.at("seconds");
  std::map<std::string, BarRow> rows;
  for (const Json& state : history.at("states")) {
    const std::string name = TextOf(state.at("name")), value = TextOf(state.at("value"));
    static const std::set<std::string> kOff = {"off", "released", "asleep", "closed"};
    BarRow& row = rows[name];
    row.label = name;
    const double begin = state.at("begin"), until = state.at("end");
    std::string title = name;
    title += " " + value + ", " + SecondsText(until - begin) + " s";
    row.bars.push_back({begin, until, kOff.count(value) != 0 ? "off" : "on", title});
  }
  std::vector<BarRow> list;
  list.reserve(rows.size());
  for (auto& [name, row] : rows) list.push_back(std::move(row));
  std::string out;
  if (list.empty()) {
    out += "<p>Only a running service, or a capture, tells power, wake lock and traffic.</p>\n";
  } else {
    out += DrawRows("Power, port, controller, wake lock and coexistence over time", list, 0, end);
    out +=
        "<p class=\"legend\"><span class=\"key on\"></span> on, open, awake, held <span "
        "class=\"key off\"></span> off, closed, asleep, released; nothing: not known</p>\n";
  }
  std::vector<Curve> curves;
  std::string legend;
  for (const auto& [name, counter] : history.at("counters").items()) {
    if (name.rfind("bytes a second", 0) != 0) continue;
    Curve curve{name, curves.empty() ? "a" : "b", {}, true};
    for (const Json& sample : counter.at("samples")) {
      curve.points.emplace_back(sample.at(0).get<double>(), sample.at(1).get<double>() / 1000);
    }
    legend += "<span class=\"key " + curve.style + "\"></span> " + Escape(name) + " ";
    curves.push_back(std::move(curve));
  }
  if (!curves.empty()) {
    out += DrawCurves("Traffic over time", curves, "kB/s", 0, end);
    out += "<p class=\"legend\">" + legend + "</p>\n";
  }
  std::string table;
  for (const auto& [direction, sums] : history.at("traffic").items()) {
    table +=
        "<tr>" + Cell(direction == "to_controller" ? "to the controller" : "from the controller") +
        NumberCell(TextOf(sums.at("packets"))) + NumberCell(TextOf(sums.at("bytes"))) + "</tr>";
  }
  return out + Table("Traffic that was seen", {"direction", "packets", "bytes"}, table);
}

std::string DrawTold(const Json& report) {
  std::string table;
  size_t shown = 0, left_out = 0;
  std::string last;
  for (const Json& mark : report.at("history").at("marks")) {
    constexpr size_t kMost = 200;
    const std::string text = TextOf(mark.at("text"));
    if (shown >= kMost) {
      ++left_out;
      continue;
    }
    ++shown;
    table += "<tr class=\"" + Escape(TextOf(mark.at("kind"))) + "\">" +
             NumberCell(SecondsText(mark.at("time"))) + Cell(TextOf(mark.at("kind"))) + Cell(text) +
             Cell(TextOf(mark.at("meaning"))) + "</tr>";
  }
  std::string out =
      Table("What was told, from the bring-up on", {"at, s", "kind", "text", "meaning"}, table);
  if (left_out > 0) out += "<p>" + std::to_string(left_out) + " more are left out.</p>\n";
  return out;
}

std::string DrawCrashes(const Json& report) {
  if (report.at("crashes").empty()) return "<p>No failure has left files.</p>\n";
  std::string out;
  for (const Json& crash : report.at("crashes")) {
    const std::string title = LocalTimeText(crash.at("time")) + ": " + CrashTitle(crash);
    out += "<article class=\"crash\"><h3>" + Escape(title) + "</h3><dl>";
    for (const char* const key : {"count", "message", "pid", "thread"}) {
      if (crash.contains(key) && !TextOf(crash[key]).empty()) {
        out += std::string("<dt>") + key + "</dt><dd>" + Escape(TextOf(crash[key])) + "</dd>";
      }
    }
    out += "<dt>files</dt><dd>";
    for (const Json& file : crash.at("files")) {
      out +=
          Escape(TextOf(file.at("name"))) + " (" + Escape(TextOf(file.at("bytes"))) + " bytes)<br>";
    }
    out += "</dd></dl>";
    const auto lines = [&](const char* key, const char* name) {
      if (!crash.contains(key) || crash[key].empty()) return;
      std::string text;
      for (const Json& line : crash[key]) text += TextOf(line) + "\n";
      out += Folded(name, "<pre>" + Escape(text) + "</pre>");
    };
    lines("last_records", "the last records before it");
    lines("frames", "frames");
    out += "</article>\n";
  }
  return out;
}

std::string DrawResidency(const Json& report) {
  const Json& states = report.at("residency");
  if (states.empty()) return "";
  std::map<std::string, double> ms;
  std::string table, legend;
  for (const Json& state : states) {
    ms[TextOf(state.at("state"))] = state.at("total_ms");
    table += "<tr>" + Cell(TextOf(state.at("state"))) + NumberCell(TextOf(state.at("total_ms"))) +
             NumberCell(TextOf(state.at("entries"))) + "</tr>";
  }
  // What it transmits and receives is a part of the time in which it is active.
  const double other = std::max(ms["active"] - ms["transmit"] - ms["receive"], 0.0);
  const std::pair<const char*, double> parts[] = {{"transmit", ms["transmit"]},
                                                  {"receive", ms["receive"]},
                                                  {"active otherwise", other},
                                                  {"idle", ms["idle"]}};
  double total = 0, at = 0;
  for (const auto& [name, part_ms] : parts) total += part_ms;
  if (total <= 0) return "";
  BarRow row{"", {}};
  const char* const styles[] = {"a", "b", "c", "off"};
  for (size_t i = 0; i < std::size(parts); ++i) {
    const double part = parts[i].second / total * 100;
    char percent[16];
    std::snprintf(percent, sizeof percent, "%.1f %%", part);
    row.bars.push_back({at, at + part, styles[i], std::string(parts[i].first) + " " + percent});
    at += part;
    legend += std::string("<span class=\"key ") + styles[i] + "\"></span> " +
              Escape(row.bars.back().title) + " ";
  }
  std::string bar =
      "<svg viewBox=\"0 0 960 26\" role=\"img\" aria-label=\"The controller's time, "
      "state by state\">";
  for (const Bar& part : row.bars) {
    char rect[160];
    std::snprintf(rect, sizeof rect,
                  "<rect class=\"%s\" x=\"%.1f\" y=\"2\" width=\"%.1f\" height=\"22\"><title>",
                  part.style.c_str(), part.begin * 9.6, (part.end - part.begin) * 9.6);
    bar += rect + Escape(part.title) + "</title></rect>";
  }
  return bar + "</svg>\n<p class=\"legend\">" + legend + "</p>\n" +
         Table("The controller's time, by the last reading", {"state", "ms", "entries"}, table);
}

std::string DrawQuality(const Json& report) {
  const Json& reports = report.at("quality");
  if (reports.empty()) return "";
  const double begin = reports.front().at("time"), end = reports.back().at("time");
  std::map<unsigned, std::vector<const Json*>> links;
  for (const Json& one : reports) links[one.at("handle").get<unsigned>()].push_back(&one);
  std::string out;
  for (const auto& [handle, list] : links) {
    char name[48];
    std::snprintf(name, sizeof name, "Connection 0x%04X", handle);
    std::vector<Curve> rssi(2), quality(1);
    std::string table;
    for (const Json* one : list) {
      const double time = (*one).at("time").get<double>() - begin;
      for (size_t chain = 0; chain < 2; ++chain) {
        rssi[chain].points.emplace_back(time, (*one).at("rssi_dbm").at(chain).get<double>());
      }
      if (one->contains("overall")) {
        quality[0].points.emplace_back(time, (*one).at("overall").get<double>());
      }
      table += "<tr>" + Cell(LocalTimeText((*one).at("time"))) + Cell(TextOf((*one).at("kind"))) +
               NumberCell(TextOf((*one).at("rssi_dbm"))) +
               NumberCell(TextOf((*one).at("power_dbm"))) +
               NumberCell(TextOf((*one).at("retransmission_power_dbm"))) +
               NumberCell(TextOf(one->value("overall", Json()))) +
               NumberCell(TextOf(one->value("transmit", Json()))) +
               NumberCell(TextOf(one->value("receive", Json()))) + "</tr>";
    }
    rssi[0].label = "RSSI, chain 0";
    rssi[0].style = "a";
    rssi[1].label = "RSSI, chain 1";
    rssi[1].style = "b";
    quality[0].label = "link quality";
    quality[0].style = "c";
    out += std::string("<h3>") + name + "</h3>";
    out += DrawCurves(std::string("RSSI of ") + name, rssi, "dBm", 0, end - begin);
    out +=
        "<p class=\"legend\"><span class=\"key a\"></span> RSSI, chain 0 <span class=\"key "
        "b\"></span> RSSI, chain 1</p>\n";
    if (!quality[0].points.empty()) {
      out += DrawCurves(std::string("Link quality of ") + name, quality, "", 0, end - begin);
    }
    out += Folded("The reports as a table",
                  Table(std::string("Quality reports of ") + name,
                        {"time", "kind", "RSSI, dBm", "power, dBm", "power again, dBm", "overall",
                         "transmit", "receive"},
                        table));
  }
  return out;
}

std::string DrawActivity(const Json& report) {
  const Json& tables = report.at("activity");
  if (!tables.is_object()) return "";
  std::string out;
  for (const auto& [name, rows] : tables.items()) {
    if (rows.empty()) continue;
    std::vector<std::string> heads;
    for (const auto& [key, value] : rows[0].items()) heads.push_back(key);
    std::string table;
    for (const Json& row : rows) {
      table += "<tr>";
      for (const std::string& head : heads) table += Cell(TextOf(row.value(head, Json())));
      table += "</tr>";
    }
    out += Table(name, heads, table);
  }
  return out.empty() ? "<p>Nothing that lasted.</p>\n" : out;
}

std::string DrawFindings(const Json& report) {
  std::string table;
  for (const Json& finding : report.at("findings")) {
    const std::string level = Escape(TextOf(finding.at("level")));
    table += "<tr class=\"" + level + "\">" + Cell(TextOf(finding.at("level"))) +
             Cell(TextOf(finding.at("what"))) + Cell(TextOf(finding.at("text"))) +
             Cell(TextOf(finding.at("advice"))) + "</tr>";
  }
  return Table("What a bring-up needs", {"", "what", "found", "what to do"}, table);
}

std::string DrawTexts(const Json& report) {
  std::string out;
  for (const Json& text : report.at("texts")) {
    const size_t left_out = text.at("left_out");
    out += Folded(TextOf(text.at("name")),
                  (left_out == 0 ? ""
                                 : "<p>" + std::to_string(left_out) +
                                       " bytes before this are left out.</p>") +
                      "<pre>" + Escape(TextOf(text.at("text"))) + "</pre>");
  }
  return out;
}

struct Part {
  const char* id;
  const char* title;
  std::string (*draw)(const Json& report);
};
constexpr Part kParts[] = {
    {"bring-up", "Bring-up", DrawBringUp},    {"time-line", "Time line", DrawTimeLine},
    {"crashes", "Crashes", DrawCrashes},      {"told", "Warnings and reports", DrawTold},
    {"quality", "Link quality", DrawQuality}, {"residency", "The controller's time", DrawResidency},
    {"activity", "Activity", DrawActivity},   {"findings", "Settings and files", DrawFindings},
    {"texts", "Full texts", DrawTexts},
};

std::string Page(const std::string& title, const std::string& body) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<meta "
         "name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<meta "
         "http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
         "'unsafe-inline'; img-src data:\">\n<link rel=\"icon\" href=\"data:,\">\n<title>" +
         Escape(title) + "</title>\n<style>\n" + kPageStyle + "</style>\n</head>\n<body>\n" + body +
         "</body>\n</html>\n";
}

// Rows of what differs between two reports.
class Differences {
 public:
  void Add(const std::string& what, const std::string& one, const std::string& other) {
    rows_ += std::string("<tr") + (one == other ? "" : " class=\"differs\"") + ">" + Cell(what) +
             Cell(one) + Cell(other) + "</tr>";
    if (one != other) ++count_;
  }
  std::string Draw(const std::string& caption) const {
    return Table(caption, {"", "A", "B"}, rows_);
  }
  size_t count() const { return count_; }

 private:
  std::string rows_;
  size_t count_ = 0;
};

// In their order; from the second of a name on with a number.
class Named {
 public:
  Named(const Json& list, const char* key) {
    for (const Json& item : list) {
      const std::string name = TextOf(item.at(key));
      std::string unique = name;
      for (int i = 2; Find(unique) != nullptr; ++i) unique = name + " " + std::to_string(i);
      items_.emplace_back(unique, &item);
    }
  }
  const Json* Find(const std::string& name) const {
    for (const auto& [own, item] : items_) {
      if (own == name) return item;
    }
    return nullptr;
  }
  // The names of both, those of this one first.
  std::vector<std::string> NamesWith(const Named& other) const {
    std::vector<std::string> names;
    for (const auto& [name, item] : items_) names.push_back(name);
    for (const auto& [name, item] : other.items_) {
      if (Find(name) == nullptr) names.push_back(name);
    }
    return names;
  }

 private:
  std::vector<std::pair<std::string, const Json*>> items_;
};

std::string StepResult(const Json* step) {
  if (step == nullptr) return "-";
  const std::string detail = TextOf((*step).at("detail"));
  return std::string((*step).at("failed").get<bool>()    ? "failed"
                     : (*step).at("running").get<bool>() ? "had not ended"
                                                         : "ok") +
         (detail.empty() ? "" : ", " + detail);
}

double StepSeconds(const Json* step) {
  return step == nullptr ? 0 : (*step).at("end").get<double>() - (*step).at("begin").get<double>();
}

std::string FindingText(const Json* finding) {
  return finding == nullptr ? "-"
                            : TextOf((*finding).at("level")) + ": " + TextOf((*finding).at("text"));
}

}  // namespace

std::string ReportPage(const Json& report) {
  std::string body = "<header><h1>Bluetooth controller</h1>\n" + DrawVerdict(report) +
                     "</header>\n<nav "
                     "aria-label=\"Parts\">";
  std::string parts;
  for (const Part& part : kParts) {
    const std::string content = part.draw(report);
    if (content.empty()) continue;
    body += std::string("<a href=\"#") + part.id + "\">" + part.title + "</a> ";
    parts += std::string("<section id=\"") + part.id + "\"><h2>" + part.title + "</h2>\n" +
             content + "</section>\n";
  }
  return Page("Bluetooth report of " + TextOf(report.at("source")),
              body + "</nav>\n<main>\n" + parts + "</main>\n");
}

std::string ComparisonPage(const Json& one, const Json& other) {
  std::string body = "<header><h1>Two reports compared</h1>\n<div class=\"pair\"><div><h2>A</h2>" +
                     DrawVerdict(one) + "</div><div><h2>B</h2>" + DrawVerdict(other) +
                     "</div></div></header>\n<main>\n";
  Differences steps, settings, numbers;
  const Named steps_a(one.at("history").at("steps"), "name"),
      steps_b(other.at("history").at("steps"), "name");
  std::string times;
  for (const std::string& name : steps_a.NamesWith(steps_b)) {
    const Json *const a = steps_a.Find(name), *const b = steps_b.Find(name);
    steps.Add(name, StepResult(a), StepResult(b));
    const double ta = StepSeconds(a), tb = StepSeconds(b);
    // A difference that somebody would notice.
    const bool differs = std::abs(ta - tb) > std::max(0.01, 0.2 * std::min(ta, tb));
    times += std::string("<tr") + (differs ? " class=\"differs\"" : "") + ">" + Cell(name) +
             NumberCell(SecondsText(ta)) + NumberCell(SecondsText(tb)) +
             NumberCell(SecondsText(tb - ta)) + "</tr>";
  }
  const Named findings_a(one.at("findings"), "what"), findings_b(other.at("findings"), "what");
  for (const std::string& name : findings_a.NamesWith(findings_b)) {
    settings.Add(name, FindingText(findings_a.Find(name)), FindingText(findings_b.Find(name)));
  }
  numbers.Add("state", TextOf(one.at("verdict").at("state")),
              TextOf(other.at("verdict").at("state")));
  numbers.Add("files of crashes", std::to_string(one.at("crashes").size()),
              std::to_string(other.at("crashes").size()));
  for (const char* const direction : {"to_controller", "from_controller"}) {
    numbers.Add(std::string("packets ") + direction,
                TextOf(one.at("history").at("traffic").at(direction).at("packets")),
                TextOf(other.at("history").at("traffic").at(direction).at("packets")));
  }
  body += "<p>" + std::to_string(steps.count() + settings.count() + numbers.count()) +
          " lines differ; they are marked.</p>\n";
  body += "<section id=\"numbers\"><h2>At a glance</h2>" + numbers.Draw("State, crashes, traffic") +
          "</section>\n";
  body += "<section id=\"steps\"><h2>Bring-up</h2><div class=\"pair\"><div><h3>A</h3>" +
          DrawBringUp(one) + "</div><div><h3>B</h3>" + DrawBringUp(other) + "</div></div>" +
          steps.Draw("Results of the steps") +
          Table("Times of the steps, in seconds", {"step", "A", "B", "B - A"}, times) +
          "</section>\n";
  body += "<section id=\"findings\"><h2>Settings and files</h2>" +
          settings.Draw("What a bring-up needs") + "</section>\n";
  body += "<section id=\"crashes\"><h2>Crashes</h2><div class=\"pair\"><div><h3>A</h3>" +
          DrawCrashes(one) + "</div><div><h3>B</h3>" + DrawCrashes(other) +
          "</div></div></section>\n";
  return Page(
      "Bluetooth reports of " + TextOf(one.at("source")) + " and " + TextOf(other.at("source")),
      body + "</main>\n");
}

}  // namespace bthalctl
