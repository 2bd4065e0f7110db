#include "tools/report/verdict.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/evidence/crash_list.h"
#include "tools/hci/names.h"
#include "tools/log/log_line.h"
#include "tools/report/svg.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

// A line about a command that failed in plain words; any other line as it is.
std::string Readable(const std::string& error) {
  unsigned opcode = 0, result = 0;
  if (std::sscanf(error.c_str(), "btzvk_send_command_wait_complete: 0x%x LEN 0x%*x Result 0x%x",
                  &opcode, &result) != 2) {
    return error;
  }
  constexpr unsigned kNoAnswer = 0x03;
  const std::string command = OpcodeText(static_cast<uint16_t>(opcode));
  return command + (result == kNoAnswer
                        ? " was not answered, or with " + StatusText(kNoAnswer)
                        : " was refused with " + StatusText(static_cast<uint8_t>(result)));
}

// The first error that was told between these times; empty when there is none.
std::string ErrorWithin(const Json& marks, double begin, double end) {
  for (const Json& mark : marks) {
    const double time = mark["time"];
    if (mark["kind"] == "error" && time >= begin - 0.001 && time <= end + 0.001) {
      return mark["text"];
    }
  }
  return "";
}

bool WasTold(const Json& marks, const char* text) {
  for (const Json& mark : marks) {
    if (mark["text"] == text) return true;
  }
  return false;
}

std::string Crashed(const Json& crashes) {
  if (crashes.empty()) return "";
  const Json& last = crashes.back();
  const std::string times = crashes.size() == 1 ? "one file of a crash is there, "
                                                : std::to_string(crashes.size()) +
                                                      " files of crashes are there, the last ";
  return " Besides, " + times + "of " + LocalTimeText(last["time"]) + ": " + CrashTitle(last) + ".";
}

}  // namespace

Json VerdictOf(const Json& report) {
  const Json& history = report["history"];
  const Json& steps = history["steps"];
  const Json& marks = history["marks"];
  const double begin = history["begin"];
  const std::string when = "The bring-up of " + LocalTimeText(static_cast<time_t>(begin));
  const auto verdict = [](const char* state, const std::string& text) {
    return Json{{"state", state}, {"text", text}};
  };

  const Json* failed = nullptr;
  for (const Json& step : steps) {
    if (step["failed"].get<bool>()) failed = &step;
  }
  const bool ready = WasTold(marks, "the controller is ready");
  if (failed != nullptr && !ready) {
    std::string text = when + " failed at \"" + (*failed)["name"].get<std::string>() + "\"";
    const std::string error = ErrorWithin(marks, (*failed)["begin"], (*failed)["end"]);
    if (!error.empty()) text += ": " + Readable(error);
    text += ".";
    for (const Json& crash : report["crashes"]) {
      // Its time is in whole seconds.
      if (crash["time"].get<double>() + 1 < begin || !crash.contains("reason")) continue;
      text += " The service reported \"" + CrashTitle(crash) + "\".";
      break;
    }
    return verdict("failed", text);
  }
  if (!steps.empty() && steps.back()["running"].get<bool>()) {
    const Json& step = steps.back();
    return verdict("stuck", when + " is waiting at \"" + step["name"].get<std::string>() +
                                "\": there the log ends." + Crashed(report["crashes"]));
  }
  if (ready) {
    double end = 0;
    for (const Json& mark : marks) {
      if (mark["text"] == "the controller is ready") end = mark["time"];
    }
    const std::string took = " took " + TimeText(end) + ".";
    const std::string state =
        report["transport"].is_object() ? report["transport"].value("state", "") : "";
    const bool open = state == "open" || state == "connected";
    if (report["live"].get<bool>() && open) {
      return verdict("up", "The controller is up. " + when + took + Crashed(report["crashes"]));
    }
    const std::string now =
        report["live"].get<bool>() ? " Bluetooth is off now." : " No service answers here now.";
    return verdict("down", when + took + now + Crashed(report["crashes"]));
  }
  if (steps.empty()) {
    return verdict("unknown", "There is no bring-up in the log." + Crashed(report["crashes"]));
  }
  return verdict("unknown", when + " did not end in the log." + Crashed(report["crashes"]));
}

}  // namespace bthalctl
