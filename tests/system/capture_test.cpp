// Captures as other people's programs read them: tshark and btmon.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> Tshark(const std::string& file, std::vector<std::string> arguments) {
  std::string output;
  arguments.insert(arguments.begin(), {"tshark", "-n", "-r", file});
  // Its remarks, for instance on being root, go elsewhere.
  arguments.insert(arguments.begin(), {"sh", "-c", "exec \"$@\" 2>/dev/null", "sh"});
  EXPECT_EQ(Run(arguments, &output).exit_code, 0) << output;
  return Lines(output);
}

constexpr size_t kTraced = 128;  // digits that a trace shows of a packet

// The packets of one direction, in hex. A trace shows the beginning of long ones only.
using Packets = std::vector<std::string>;

Packets TracePackets(const Handset& handset, char direction, const std::string& kind = "") {
  Packets packets;
  for (const TraceLine& line : handset.Trace()) {
    if (line.direction != direction || line.text.rfind(kind, 0) != 0) continue;
    std::string hex = line.text.substr(line.text.find(' ') + 1);
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    packets.push_back(hex.substr(0, hex.find("\xE2\x80\xA6")));  // …
  }
  return packets;
}

// A capture's format, and where tshark has the direction and the packet of it.
struct Format {
  const char* name;
  const char* from_controller;  // a filter
  const char* to_controller;
  size_t type_digits;  // before the packet, in hex
};
constexpr Format kFormats[] = {
    {"pcapng", "hci_h4.direction == 1", "hci_h4.direction == 0", 2},
    {"btsnoop", "hci_h4.direction == 1", "hci_h4.direction == 0", 2},
    {"monitor", "hci_mon.opcode in {3, 5, 7, 19}", "hci_mon.opcode in {2, 4, 6, 18}", 0},
};

Packets CapturedPackets(const std::string& file, const Format& format, const char* filter) {
  Packets packets;
  bool is_frame = false;
  for (const std::string& line : Tshark(file, {"-Y", filter, "-T", "jsonraw"})) {
    if (is_frame) {
      const size_t begin = line.find('"') + 1;
      packets.push_back(line.substr(begin, line.rfind('"') - begin).substr(format.type_digits));
    }
    is_frame = line.find("\"frame_raw\"") != std::string::npos;
  }
  return packets;
}

void ExpectTraced(const Packets& captured, const Packets& traced) {
  ASSERT_EQ(captured.size(), traced.size());
  for (size_t i = 0; i < captured.size(); ++i) {
    ASSERT_EQ(captured[i].substr(0, kTraced), traced[i]) << "packet " << i;
  }
}

void ExpectSound(const std::string& file) {
  EXPECT_EQ(Tshark(file, {"-Y", "_ws.malformed || _ws.expert.severity >= 8388608"}).size(), 0u);
  const std::vector<std::string> times = Tshark(file, {"-T", "fields", "-e", "frame.time_delta"});
  EXPECT_TRUE(std::none_of(times.begin(), times.end(), [](const std::string& delta) {
    return delta.find('-') != std::string::npos;
  })) << "the times do not rise";
}

// What bthalctl monitor shows of a file, without the times.
std::vector<std::string> MonitorLines(const Handset& handset, const std::string& file,
                                      std::vector<std::string> options = {}) {
  options.insert(options.begin(), {"monitor", "--read", file});
  const CtlResult result = handset.Ctl(options);
  EXPECT_EQ(result.exit_code, 0) << result.output;
  std::vector<std::string> shown;
  for (const std::string& line : Lines(result.output)) {
    if (const size_t blank = line.find(' '); blank != std::string::npos) {
      shown.push_back(line.substr(blank + 1));
    }
  }
  return shown;
}

// The packets of one direction among them ("<": to the controller), in hex.
Packets MonitorPackets(const std::vector<std::string>& lines_with_hex, char direction) {
  Packets packets;
  bool wanted = false;
  for (const std::string& line : lines_with_hex) {
    if (line[0] != ' ') {
      wanted = line[0] == direction;
      if (wanted) packets.emplace_back();
    } else if (wanted) {
      for (const char c : line) {
        if (c != ' ') packets.back() += static_cast<char>(std::tolower(c));
      }
    }
  }
  return packets;
}

size_t BtmonPackets(const std::string& file) {
  std::string output;
  EXPECT_EQ(Run({"btmon", "-r", file}, &output).exit_code, 0);
  const std::vector<std::string> lines = Lines(output);
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.rfind("< ", 0) == 0 || line.rfind("> ", 0) == 0;
  }));
}

class Capture : public ::testing::Test {
 protected:
  Capture() : handset_("", Mode::kAccelerated) {
    handset_.StartService();
    EXPECT_TRUE(handset_.service().WaitForOutput("controller is ready", kDeadline));
  }
  // Returns when the service captures.
  std::unique_ptr<ChildProcess> Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "capture");
    const size_t begun = CountOf("a capture has begun", handset_.Log());
    auto capture = std::make_unique<ChildProcess>(handset_.CtlCommand(arguments));
    EXPECT_TRUE(WaitFor([&] { return CountOf("a capture has begun", handset_.Log()) > begun; }))
        << capture->Output();
    return capture;
  }
  static std::string End(ChildProcess& capture) {
    capture.Signal(SIGINT);
    const auto end = capture.Wait(kDeadline);
    EXPECT_TRUE(end && end->exit_code == 0) << capture.Output();
    return capture.Output();
  }

  Handset handset_;
  const TempDir folder_;
};

TEST_F(Capture, OtherProgramsReadEveryPacket) {
  std::vector<std::unique_ptr<ChildProcess>> captures;
  for (const Format& format : kFormats) {
    captures.push_back(Start({"--bring-up", "-f", format.name, "-o", folder_ / format.name}));
  }
  const std::vector<std::string> filter = {"--types", "cmd,evt", "--no-advertising", "--no-events",
                                           "0x13"};
  std::vector<std::string> filtered = {"--bring-up", "-o", folder_ / "filtered"};
  filtered.insert(filtered.end(), filter.begin(), filter.end());
  captures.push_back(Start(filtered));
  EXPECT_EQ(handset_.Ctl({"scan", "-t", "1"}).exit_code, 0);
  EXPECT_EQ(handset_.Ctl({"echo", "ZVK Loop", "--bytes", "20k"}).exit_code, 0);
  std::vector<std::string> told;
  for (const auto& capture : captures) told.push_back(End(*capture));

  const Packets sent = TracePackets(handset_, '>'), received = TracePackets(handset_, '<');
  const size_t count = sent.size() + received.size();
  EXPECT_GT(sent.size(), 500u);
  Packets whole_sent;
  for (const Format& format : kFormats) {
    SCOPED_TRACE(format.name);
    const std::string file = folder_ / format.name;
    whole_sent = CapturedPackets(file, format, format.to_controller);
    ExpectTraced(whole_sent, sent);
    ExpectTraced(CapturedPackets(file, format, format.from_controller), received);
    ExpectSound(file);
    const std::vector<std::string> shown = MonitorLines(handset_, file, {"--hex"});
    ExpectTraced(MonitorPackets(shown, '<'), sent);
    ExpectTraced(MonitorPackets(shown, '>'), received);
    const bool has_notes = format.name != std::string("btsnoop");
    EXPECT_EQ(
        std::count(shown.begin(), shown.end(), "= firmware_download: fast download is supported"),
        has_notes ? 1 : 0);
    if (format.name != std::string("pcapng")) {
      EXPECT_EQ(BtmonPackets(file), count);
    }
    const std::string output = told[static_cast<size_t>(&format - kFormats)];
    EXPECT_THAT(output, HasSubstr(std::to_string(count) + " packets, "));
    EXPECT_EQ(CountOf("lost", output), 0u);
  }
  EXPECT_GT(
      Tshark(folder_ / "pcapng", {"-Y", "frame.comment contains \"firmware_download\""}).size(),
      0u);
  std::string notes;
  test::Run({"btmon", "-r", folder_ / "monitor"}, &notes);
  EXPECT_THAT(notes, HasSubstr("= Note: firmware_download: fast download is supported"));

  // What the service filters and what bthalctl filters is the same.
  const auto packets_of = [&](const std::string& name, const std::vector<std::string>& options) {
    std::vector<std::string> lines = MonitorLines(handset_, folder_ / name, options);
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) { return line[0] == '='; }),
                lines.end());
    return lines;
  };
  EXPECT_GT(packets_of("filtered", {}).size(), 50u);
  EXPECT_EQ(packets_of("pcapng", filter), packets_of("filtered", {}));

  // The patch file is its records: from the first to the one that starts the firmware.
  std::string download;
  for (const std::string& packet : whole_sent) {
    if (packet.rfind("4cfc", 0) == 0 || packet.rfind("4efc", 0) == 0) download += packet;
  }
  std::string patch;
  for (const char c : ReadFile(handset_.Path("vendor/firmware/tovu/ZVK_B5.hcd"))) {
    constexpr char kDigits[] = "0123456789abcdef";
    patch += {kDigits[static_cast<uint8_t>(c) >> 4], kDigits[c & 15]};
  }
  EXPECT_TRUE(download == patch);
}

// Packets to the controller and from it by their type, as the holder counts them.
std::map<std::string, std::pair<long, long>> Counters(const Handset& handset) {
  const std::string status = handset.Ctl({"status", "--json"}).output;
  std::map<std::string, std::pair<long, long>> counters;
  for (const char* type : {"CMD", "ACL", "SCO", "EVT", "ISO"}) {
    const size_t at = status.find("\"" + std::string(type) + "\"");
    auto& [to, from] = counters[type];
    EXPECT_EQ(std::sscanf(status.substr(at + 5).c_str(),
                          ": { \"from_controller\": %ld, \"to_controller\": %ld", &from, &to),
              2)
        << status;
  }
  return counters;
}

TEST_F(Capture, CountsAreThoseOfStatus) {
  EXPECT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0);
  // The service's own commands, at the start of the extensions, are none of the holder's.
  EXPECT_EQ(handset_.Ctl({"info"}).exit_code, 0);
  const auto before = Counters(handset_);
  const std::string file = folder_ / "counted";
  const auto capture = Start({"-o", file});
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"info"},
                                             {"scan", "-t", "0.5"},
                                             {"read-name", "ZVK GATT"},
                                             {"echo", "ZVK Loop", "--bytes", "50k"},
                                             {"loopback", "--bytes", "100k"}}) {
    EXPECT_EQ(handset_.Ctl(command).exit_code, 0) << command[0];
  }
  EXPECT_EQ(CountOf("lost", End(*capture)), 0u);
  const std::vector<std::string> lines = MonitorLines(handset_, file);
  for (const auto& [type, after] : Counters(handset_)) {
    const auto count = [&](const std::string& begin) {
      return std::count_if(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.rfind(begin, 0) == 0; });
    };
    EXPECT_EQ(count("< " + type), after.first - before.at(type).first) << type;
    EXPECT_EQ(count("> " + type), after.second - before.at(type).second) << type;
    EXPECT_GT(after.first + after.second, 0) << type;
  }
}

// Rotation under load, through a pipe and into files: what is not there is told.
TEST_F(Capture, RotatedFiles_AreWholeCapturesThatFollowEachOther) {
  const std::string file = folder_ / "rotated";
  const auto capture = Start({"-o", file, "--rotate", "64k:100"});
  EXPECT_EQ(handset_.Ctl({"echo", "ZVK Loop", "--bytes", "300k"}).exit_code, 0);
  EXPECT_THAT(End(*capture), ::testing::Not(HasSubstr("lost")));
  Packets sent;
  int files = 0;
  for (int age = 99; age >= 0; --age) {
    const std::string name = age == 0 ? file : file + "." + std::to_string(age);
    if (access(name.c_str(), F_OK) != 0) continue;
    ++files;
    EXPECT_LE(ReadFile(name).size(), 64u << 10);
    for (const std::string& packet :
         CapturedPackets(name, kFormats[0], kFormats[0].to_controller)) {
      sent.push_back(packet);
    }
  }
  EXPECT_GT(files, 5);
  Packets all = TracePackets(handset_, '>');
  ASSERT_GE(all.size(), sent.size());
  all.erase(all.begin(), all.end() - static_cast<ptrdiff_t>(sent.size()));
  ExpectTraced(sent, all);
}

TEST_F(Capture, HiddenData_KeepsItsLengthAndNothingElse) {
  const std::string file = folder_ / "hidden";
  const auto capture = Start({"-o", file, "--no-data"});
  EXPECT_EQ(handset_.Ctl({"read-name", "ZVK GATT"}).exit_code, 0);
  End(*capture);
  const Packets sent = CapturedPackets(file, kFormats[0], "bthci_acl && hci_h4.direction == 0");
  Packets blank = TracePackets(handset_, '>', "acl ");
  EXPECT_GT(blank.size(), 0u);
  for (std::string& packet : blank) std::fill(packet.begin() + 8, packet.end(), '0');
  EXPECT_EQ(sent, blank);
  ExpectSound(file);
}

// As Wireshark calls: tshark finds the program in its folder of capture programs.
TEST_F(Capture, LiveThroughExtcap_AndTheDissectorNamesTheVendorPart) {
  const std::string folder = folder_ / ".config/wireshark/extcap";
  std::filesystem::create_directories(folder);
  std::filesystem::create_symlink(ProgramDir() + "/bthalctl", folder + "/bthalctl");
  const std::string file = folder_ / "live", interface = "bthal:" + handset_.root();
  const Packets sent = TracePackets(handset_, '>'), received = TracePackets(handset_, '<');
  const std::string count = std::to_string(sent.size() + received.size());
  std::string output;
  EXPECT_EQ(test::Run({"tshark", "-i", interface, "-c", count, "-w", file}, &output,
                      {{"HOME", folder_.path()}, {"XDG_CONFIG_HOME", folder_ / ".config"}})
                .exit_code,
            0)
      << output;
  ExpectTraced(CapturedPackets(file, kFormats[0], kFormats[0].to_controller), sent);
  ExpectTraced(CapturedPackets(file, kFormats[0], kFormats[0].from_controller), received);

  // tshark runs no script for root.
  const std::string script = folder_ / "bthal.lua";
  std::filesystem::copy_file(WIRESHARK_SCRIPT, script);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
  const std::string user =
      geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  const auto dissected = [&](const std::string& capture, const std::string& fields) {
    std::string lines;
    test::Run({"sh", "-c",
               "HOME=/nonexistent " + user + "tshark -X lua_script:" + script +
                   " -d bthci_cmd.vendor,bthal -r - -Y bthal -T fields -e " +
                   Replaced(fields, " ", " -e ") + " 2>&1 <" + capture},
              &lines);
    return lines;
  };
  output = dissected(file, "bthal.baud bthal.chip_id bthal.ram_data");
  EXPECT_THAT(output, HasSubstr("\n4000000\t\t\n"));
  EXPECT_THAT(output, HasSubstr("\n\t0xb5\t\n"));
  std::string data;
  for (const std::string& line : Lines(output)) data += line.substr(line.rfind('\t') + 1);
  std::string written;
  for (const std::string& packet : sent) {
    if (packet.rfind("4cfc", 0) == 0) written += packet.substr(14, 10);
  }
  EXPECT_THAT(data, HasSubstr(written.substr(0, 10)));

  // Reports of the controller, with the values that the simulator puts into them.
  const std::string reports = folder_ / "reports";
  EXPECT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0);
  const auto capture = Start({"-o", reports});
  EXPECT_EQ(handset_.Ctl({"cmd", "0xFD63", "01 03 00 AD 4B 56 C2 01 00 18"}).exit_code, 0);
  for (const char* report :
       {"quality monitoring 0x40", "latency-trace 1", "link-layer C2:56:4B:AD:00:03 phy rx"}) {
    std::vector<std::string> step = {ProgramDir() + "/zvksim", "ctl", handset_.root()};
    for (const std::string& word : SplitTrimmed(report, ' ')) step.push_back(word);
    EXPECT_EQ(test::Run(step, &output).exit_code, 0) << output;
  }
  EXPECT_TRUE(WaitFor([&] { return TracePackets(handset_, '<', "event ff 17 d0").size() == 1; }));
  EXPECT_EQ(handset_.Ctl({"cmd", "read_bd_addr"}).exit_code, 0);  // behind all of them
  End(*capture);
  EXPECT_THAT(dissected(reports, "bthal.handle bthal.rssi bthal.power bthal.diversity bthal.delay"),
              ::testing::AllOf(HasSubstr("\n0x0040\t-60,-61\t10,9,-1,-2\t0x11,0x12,0x13,0x14\t\n"),
                               HasSubstr("\t\t\t\t0,5,7.5,10\n")));
  EXPECT_THAT(dissected(reports, "bthal.action bthal.address bthal.direction bthal.identifier"),
              ::testing::AllOf(HasSubstr("1\tc2:56:4b:ad:00:03\t\t0x18\n"),
                               HasSubstr("\n\tc2:56:4b:ad:00:03\t0x01\t0x18\n")));
}

TEST(CaptureOnDisk, Property_KeepsTheLastFilesFromTheStartOn) {
  Handset handset("", Mode::kAccelerated);
  WriteFile(handset.Path("data/property/persistent.prop"),
            "persist.bluetooth.capture=pcapng:64k:3\n");
  handset.StartService();
  ASSERT_TRUE(handset.service().WaitForOutput("controller is ready", kDeadline));
  EXPECT_EQ(handset.Ctl({"echo", "ZVK Loop", "--bytes", "100k"}).exit_code, 0);
  const std::string path = handset.Path("data/vendor/bluetooth/capture.pcapng");
  const auto captured = [&] {
    Packets packets;
    for (const char* age : {".2", ".1", ""}) {
      for (const std::string& packet :
           CapturedPackets(path + age, kFormats[0], kFormats[0].to_controller)) {
        packets.push_back(packet);
      }
    }
    return packets;
  };
  Packets all = TracePackets(handset, '>');
  ASSERT_TRUE(WaitFor([&] {
    const Packets kept = captured();
    return !kept.empty() && kept.back().substr(0, kTraced) == all.back();
  }));
  const Packets kept = captured();
  EXPECT_LT(kept.size(), all.size());
  all.erase(all.begin(), all.end() - static_cast<ptrdiff_t>(kept.size()));
  ExpectTraced(kept, all);
  EXPECT_NE(access((path + ".3").c_str(), F_OK), 0);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});
  EXPECT_LT(std::filesystem::file_size(path + ".1"), 70u << 10);
}

}  // namespace
}  // namespace test
