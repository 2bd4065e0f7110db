#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/capture/capture_file.h"
#include "tools/capture/capture_source.h"
#include "tools/capture/scenario_writer.h"
#include "tools/commands/capture_words.h"
#include "tools/commands/commands.h"
#include "tools/wire/capture_packets.h"
#include "tools/wire/record_splitter.h"

namespace bthalctl {
namespace {

struct CaptureOptions : CommandValues {
  std::string output;
  std::string format = "pcapng";
  std::string rotate;
  std::string to_scenario;  // a capture; empty: one is made
  CaptureWords words;
  uint64_t count = 0;  // 0: no end
  double seconds = 0;  // 0: no end
};

// "10M:5"
Rotation ParseRotation(const std::string& text) {
  Rotation rotation;
  if (text.empty()) return rotation;
  const size_t colon = text.find(':');
  if (colon == std::string::npos ||
      !::android::base::ParseByteCount(text.substr(0, colon), &rotation.size_bytes) ||
      !::android::base::ParseUint(text.substr(colon + 1), &rotation.count, 10000u) ||
      rotation.size_bytes == 0 || rotation.count == 0) {
    throw Failure(ExitCode::kUsage, "--rotate takes SIZE:COUNT, for instance 10m:5");
  }
  return rotation;
}

// How far it is, on a terminal.
class Counter {
 public:
  ~Counter() {
    if (visible_) std::fputs("\r\x1b[K", stderr);
  }
  void Add(const CaptureRecord& record, uint64_t bytes) {
    if (record.kind == RecordKind::kPacket) ++packets_;
    lost_ += record.lost;
    bytes_ = bytes;
    Show();
  }
  // Draws what has been added, but not too often: to be called in every pause as well.
  void Show() {
    const TimePoint now = Clock::now();
    if (!visible_ || now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    std::fprintf(stderr, "\r%s\x1b[K", Text().c_str());
  }
  void End() {
    std::fprintf(stderr, "%s%s\n", visible_ ? "\r\x1b[K" : "", Text().c_str());
    visible_ = false;
  }
  uint64_t packets() const { return packets_; }

 private:
  std::string Text() const {
    return std::to_string(packets_) + (packets_ == 1 ? " packet, " : " packets, ") +
           HumanBytes(bytes_) + (lost_ > 0 ? ", " + std::to_string(lost_) + " lost" : "");
  }

  uint64_t packets_ = 0;
  uint64_t lost_ = 0;
  uint64_t bytes_ = 0;
  bool visible_ = IsRichTerminal(STDERR_FILENO);
  TimePoint next_ = Clock::now();
};

void WriteScenario(const CaptureOptions& capture) {
  std::string text;
  try {
    text = ScenarioOf(wire::ReadCaptureOfBringUp(capture.to_scenario), capture.to_scenario);
  } catch (const std::runtime_error& error) {
    throw Failure(error.what());
  }
  CaptureFile file(capture.output.empty() ? "-" : capture.output, {});
  file.Write({RecordKind::kPacket, Bytes(text.begin(), text.end())});
}

void Capture(const Options& options, const CaptureOptions& capture) {
  if (!capture.to_scenario.empty()) {
    WriteScenario(capture);
    return;
  }
  if (capture.output.empty()) throw Failure(ExitCode::kUsage, "--output is required");
  const Rotation rotation = ParseRotation(capture.rotate);
  if (capture.output == "-" && rotation.size_bytes > 0) {
    throw Failure(ExitCode::kUsage, "--rotate is for files");
  }
  CatchStopSignals();
  const auto source = OpenCapture(FindService(options.wait()), capture.format, capture.words);
  CaptureFile file(capture.output, rotation);
  Counter counter;
  ForEachRecord(
      source, EndAfter(capture.seconds),
      [&](const CaptureRecord& record) {
        file.Write(record);
        counter.Add(record, file.bytes());
        return capture.count == 0 || counter.packets() < capture.count;
      },
      [&] { counter.Show(); });
  counter.End();
}

}  // namespace

void AddCaptureWords(CLI::App& command, CaptureWords& words) {
  const auto list = [&](const char* names, std::vector<std::string>& values, const char* what) {
    command.add_option(names, values, what)->delimiter(',')->type_name("LIST");
  };
  command.add_flag("--bring-up", words.bring_up, "begin with the controller's last bring-up");
  list("--types", words.types, "only these types: cmd, acl, sco, evt, iso");
  list("--opcodes", words.opcodes, "of commands and their answers only these");
  list("--events", words.events, "of events only those with these codes");
  list("--no-events", words.no_events, "no events with these codes");
  list("--handles", words.handles, "of data only that of these connections");
  command.add_flag("--no-advertising", words.no_advertising, "no advertising reports");
  command.add_flag("--no-data", words.no_data, "zeros in the place of what data packets carry");
}

void AddCapture(CLI::App& app, const Options& options) {
  auto [command, capture] =
      AddCommand(app, options, Capture, "capture",
                 "write every packet between the service and the controller to a file");
  CLI::Option* const output =
      command.add_option("-o,--output", capture.output, "file to write; - is standard output");
  output->type_name("FILE");
  command.add_option("-f,--format", capture.format, "format of the file")
      ->capture_default_str()
      ->check(CLI::IsMember({"pcapng", "btsnoop", "monitor"}));
  command
      .add_option("--rotate", capture.rotate,
                  "begin a new file at this size, keep so many: FILE, FILE.1, …")
      ->type_name("SIZE:COUNT");
  AddCaptureWords(command, capture.words);
  command.add_option("-n,--count", capture.count, "end after so many packets");
  AddSeconds(command, "-t,--time", capture.seconds, "end after so many seconds", 0, 86400);
  const CLI::Option* const help = command.get_help_ptr();
  const std::vector<CLI::Option*> of_captures = command.get_options(
      [output, help](const CLI::Option* option) { return option != output && option != help; });
  CLI::Option* const to_scenario =
      command.add_option("--to-scenario", capture.to_scenario,
                         "make no capture: write a scenario for zvksim of this one");
  to_scenario->type_name("CAPTURE");
  for (CLI::Option* const option : of_captures) to_scenario->excludes(option);
  command.footer(
      "pcapng is for Wireshark, monitor for btmon, btsnoop for both. Ctrl-C ends it.\n"
      "Examples:\n"
      "  bthalctl capture -o - | wireshark -k -i -\n"
      "  bthalctl capture -o radio.pcapng --bring-up --rotate 10m:5\n"
      "  bthalctl capture -o - -f monitor --no-advertising | btmon -r /dev/stdin\n"
      "  bthalctl capture --to-scenario radio.pcapng -o radio.txt; zvksim --scenario radio.txt …");
}

}  // namespace bthalctl
