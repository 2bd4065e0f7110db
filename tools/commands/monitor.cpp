#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/capture/packet_filter.h"
#include "tools/commands/capture_words.h"
#include "tools/commands/commands.h"
#include "tools/wire/capture_reader.h"

namespace bthalctl {
namespace {

struct MonitorOptions : CommandValues {
  std::string file;
  CaptureWords words;
  bool hex = false;
  uint64_t count = 0;  // 0: no end
  double seconds = 0;  // 0: no end
};

constexpr size_t kHexLine = 16;  // bytes

// The local day, and the time of the day with its microseconds.
struct LocalTime {
  explicit LocalTime(int64_t time_ns) {
    time_ns = std::max<int64_t>(time_ns, 0);
    const auto seconds = static_cast<time_t>(time_ns / 1'000'000'000);
    tm local = {};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d", &local);
    day = text;
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06lld", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<long long>(time_ns % 1'000'000'000 / 1000));
    time = text;
  }
  std::string day;
  std::string time;
};

// Writes what a capture holds to standard output, in lines.
class Printer {
 public:
  explicit Printer(const MonitorOptions& options) : options_(options) {
    if (options.file.empty()) day_ = LocalTime(std::time(nullptr) * int64_t{1'000'000'000}).day;
  }

  void Show(const wire::Captured& item) {
    const LocalTime time(item.time_ns);
    if (!item.note.empty()) ShowNote(time, item.note);
    if (item.lost > 0) {
      const std::string text = std::to_string(item.lost) +
                               (item.lost == 1 ? " packet is" : " packets are") + " missing here";
      Line(time, {{"lost", item.lost}}, "!", Colour::kRed, Paint(Colour::kRed, text));
    }
    if (item.packet) ShowPacket(time, *item.packet, item.from_controller);
  }

 private:
  void ShowNote(const LocalTime& time, const std::string& note) {
    constexpr std::string_view kLoss = " missing here";  // the packet behind it tells that, too
    if (note.size() > kLoss.size() &&
        note.compare(note.size() - kLoss.size(), kLoss.size(), kLoss) == 0) {
      return;
    }
    // As the service writes them: "W " and more before what is trouble.
    const bool trouble = note.size() > 1 && note[1] == ' ' && note[0] != 'I';
    const Colour colour = !trouble         ? Colour::kBold
                          : note[0] == 'W' ? Colour::kYellow
                                           : Colour::kRed;
    Line(time, {{"note", note}}, "=", colour, Paint(colour, note));
  }

  void ShowPacket(const LocalTime& time, const Packet& packet, bool from_controller) {
    const std::string text = wire::Describe(packet);
    Line(time,
         {{"direction", from_controller ? "in" : "out"},
          {"type", TypeName(packet.type)},
          {"text", text},
          {"bytes", HexText(packet.bytes)}},
         from_controller ? ">" : "<", from_controller ? Colour::kGreen : Colour::kBlue, text);
    if (!options_.hex || options_.json) return;
    for (size_t at = 0; at < packet.bytes.size(); at += kHexLine) {
      const std::string line = HexText(ByteView(packet.bytes).Sub(at, kHexLine));
      std::puts(Paint(Colour::kGrey, "        " + line).c_str());
    }
  }

  void Line(const LocalTime& time, nlohmann::json json, const char* mark, Colour colour,
            const std::string& text) {
    if (options_.json) {
      json["time"] = time.day + "T" + time.time;
      // What is no UTF-8 is replaced.
      std::puts(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
      return;
    }
    if (time.day != day_) {
      day_ = time.day;
      std::puts(Paint(Colour::kBold, day_).c_str());
    }
    std::printf("%s %s %s\n", Paint(Colour::kGrey, time.time).c_str(), Paint(colour, mark).c_str(),
                text.c_str());
  }

  const MonitorOptions& options_;
  std::string day_;  // of the line before
};

void Monitor(const Options& options, const MonitorOptions& monitor) {
  Printer printer(monitor);
  uint64_t shown = 0;
  const auto show = [&](const wire::Captured& item) {
    printer.Show(item);
    if (item.packet) ++shown;
    return shown == 0 || shown != monitor.count;
  };
  if (!monitor.file.empty()) {
    const PacketFilter filter(monitor.words);
    wire::ForEachCaptured(monitor.file, [&](wire::Captured item) {
      if (item.packet && !filter.Passes(*item.packet)) item.packet.reset();
      return show(item);
    });
    return;
  }
  CatchStopSignals();
  // In this format notes come at once, not with the packet behind them.
  const auto source = OpenCapture(FindService(options.wait()), "monitor", monitor.words);
  std::fputs("following the service\n", stderr);
  wire::CaptureReader reader;
  ForEachRecord(source, EndAfter(monitor.seconds), [&](const CaptureRecord& record) {
    reader.Put(record.bytes);
    bool go_on = true;
    while (const std::optional<wire::Captured> item = go_on ? reader.Next() : std::nullopt) {
      go_on = show(*item);
    }
    // Whoever reads this has gone: there is nothing left to do.
    return std::fflush(stdout) == 0 && go_on;
  });
}

}  // namespace

void AddMonitor(CLI::App& app, const Options& options) {
  auto [command, monitor] =
      AddCommand(app, options, Monitor, "monitor",
                 "show what passes between the service and the controller, one line per packet",
                 "one JSON object per line");
  CLI::Option* const file =
      command.add_option("-r,--read", monitor.file, "show this capture instead")->type_name("FILE");
  AddCaptureWords(command, monitor.words);
  command.get_option("--bring-up")->excludes(file);
  command.add_flag("--hex", monitor.hex, "each packet's bytes as well");
  command.add_option("-n,--count", monitor.count, "end after so many packets");
  AddSeconds(command, "-t,--time", monitor.seconds, "end after so many seconds", 0, 86400);
  command.footer(
      "< is to the controller, > is from it; = is a line of the service's log, ! a gap. It needs\n"
      "nobody that holds Bluetooth and disturbs nobody. Files: what \"capture\" writes, in every\n"
      "format, and captures of other programs in these formats.\n"
      "Examples:\n"
      "  bthalctl monitor --bring-up --no-advertising\n"
      "  bthalctl monitor --read radio.pcapng --types cmd,evt | less");
}

}  // namespace bthalctl
