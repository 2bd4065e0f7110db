// What bthalctl and the simulator read: the first byte says what the rest is, see kReaders.
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "root_folder/root_folder.h"
#include "sim/handset/handset.h"
#include "support/vectors.h"
#include "target.h"
#include "tools/capture/scenario_writer.h"
#include "tools/evidence/activity_report.h"
#include "tools/evidence/evidence_file.h"
#include "tools/evidence/report_sections.h"
#include "tools/hci/advertisement.h"
#include "tools/hci/channel_map.h"
#include "tools/history/history_recorder.h"
#include "tools/link/exchange.h"
#include "tools/log/log_line.h"
#include "tools/report/archive.h"
#include "tools/report/log_findings.h"
#include "tools/report/report.h"
#include "tools/wire/capture_packets.h"
#include "tools/wire/capture_reader.h"
#include "tools/wire/describe.h"
#include "tools/wire/h4_framer.h"

namespace {

using namespace bthalctl;

void ReadCapture(const std::string& file) {
  wire::CaptureReader reader;
  HistoryRecorder history;
  for (const char byte : file) {
    reader.Put(wire::Bytes{static_cast<uint8_t>(byte)});
    while (const auto item = reader.Next()) history.AddCaptured(*item);
  }
  history.Finish(0);
  const auto packets = wire::ParseCapture(wire::ByteView(file));
  const std::string scenario = ScenarioOf(packets, "a capture");
  try {
    zvk::ParseScenario(scenario, "f", zvk::Handset::ActionTypes());
  } catch (const std::runtime_error& error) {
    fuzz::Require(false, error.what());
  }
}

void ReadLog(const std::string& text) {
  std::vector<LogLine> lines;
  fuzz::Input input(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  while (!input.empty()) {
    if (const auto line = ParseLogLine(input.Until('\n'))) lines.push_back(*line);
  }
  HistoryRecorder history;
  history.AddLog(lines);
  history.Finish(0);
  QualityReports(lines);
  LastResidency(lines);
}

void ReadDebugReport(const std::string& text) {
  std::string whole;
  for (const Section& section : CutReport(text)) whole += section.text;
  fuzz::Require(whole == text, "the sections are the report");
  ReadActivityTables(text);
}

void ReadStream(const std::string& stream) {
  const auto from =
      stream.size() % 2 == 0 ? wire::H4Framer::From::kHost : wire::H4Framer::From::kController;
  wire::H4Framer framer(
      from,
      [](wire::PacketType type, wire::ByteView bytes) {
        const Packet packet{type, wire::Bytes(bytes.begin(), bytes.end())};
        fuzz::Require(wire::Describe(packet).find('\n') == std::string::npos, "one line a packet");
        Advertisements(packet);
        AnswerIn(packet);
      },
      [](uint8_t) {});
  framer.Push(wire::ByteView(stream));
}

void Unpack(const std::string& archive) {
  const std::string folder = root_folder::Resolve("/unpacked");
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory(folder);
  fuzz::PutOnDisk("/archive", archive);
  UnpackHandsetFiles(root_folder::Resolve("/archive"), folder);
}

enum Kind : char { kCapture, kScenario, kLog, kCrashInfo, kTombstone, kDebugReport, kStream };

// By Kind, then those that have no seeds.
void (*const kReaders[])(const std::string&) = {
    ReadCapture,
    [](const std::string& text) { zvk::ParseScenario(text, "f", zvk::Handset::ActionTypes()); },
    ReadLog,
    [](const std::string& text) { ParseCrashInfo(text); },
    [](const std::string& text) { ParseTombstone(text); },
    ReadDebugReport,
    ReadStream,
    [](const std::string& text) { ReportPage(ParseReport(text, "f")); },
    Unpack,
    [](const std::string& text) {
      ChannelMap::FromHex(text.substr(0, 20)).Avoid(text.substr(std::min<size_t>(20, text.size())));
    },
};

}  // namespace

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds;
  const auto add = [&](Kind kind, const std::vector<std::string>& texts) {
    Append(&seeds, Prefixed({kind}, texts));
  };
  add(kCapture, Packets("capture_files.txt"));
  for (const test::Vector& vector : test::LoadVectors("scenario_mistakes.txt")) {
    add(kScenario, {*test::ParseText(vector.name)});
  }
  add(kTombstone, {test::LoadData("tombstone.txt")});
  add(kCrashInfo, {test::LoadExpected("crashinfo.txt")});
  add(kDebugReport, {test::LoadExpected("activity_report.txt"), test::LoadExpected("hal_log.txt")});
  add(kStream, Packets("h4_streams.txt"));
  add(kStream, Packets("simulator_requests.txt"));
  // The rows of all types, behind each type byte.
  for (const char* type : {"\1", "\2", "\3", "\4", "\5"}) {
    add(kStream, Prefixed(type, Packets("decoder.txt")));
  }
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const auto reader = kReaders[input.Byte() % std::size(kReaders)];
  try {
    reader(input.Rest());
  } catch (const std::runtime_error&) {  // refused, with a reason
  }
  return 0;
}
