#include "tools/log/transport_state.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.h"
#include "tools/base/failure.h"
#include "tools/evidence/transport_records.h"
#include "tools/log/whole_log.h"

namespace bthalctl {
namespace {

using Lines = std::vector<std::string>;

constexpr int kService = 5341;

// The state after lines "TAG: TEXT" of the service, or "PID TAG: TEXT" of another process.
std::string StateAfter(const Lines& lines) {
  TransportState state(kService);
  for (const std::string& line : lines) {
    const bool other = std::isdigit(line[0]) != 0;
    const size_t tag = other ? line.find(' ') + 1 : 0;
    const std::string pid = other ? line.substr(0, tag - 1) : std::to_string(kService);
    const auto parsed =
        ParseLogLine("2026-11-21 06:48:10.000 " + pid + "  5353 I " + line.substr(tag));
    if (!parsed) throw Failure("no log line: " + line);
    state.Feed(*parsed);
  }
  return state.Describe();
}

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

TEST(TransportState, LinesOfTheService_TellHowItReachesTheController) {
  const Lines start = {"bthal.zvkbtlinux: BluetoothHci"};
  const Lines fast = {"bthal.zvkproto: baudrate_change: Sending Update Baud Rate (4000000) command",
                      "bthal.zvkproto: baudrate_change: Done"};
  const Lines opening = {"bthal.hwcontrol: PowerControl: Disabling, state_path: /x",
                         "bthal.hwcontrol: PowerControl: Enabling, state_path: /x",
                         "bthal.hwcontrol: userial_tty_open: open /dev/ttySAC16"};
  const Lines port = opening + Lines{"bthal.hwcontrol: UserialOpen: USERIAL (14) Ready"};
  const Lines line_up = port + fast + Lines{"bthal.zvkproto: lpm_setup: LPM Enabled"};
  const Lines connecting = {"bthal.qvrhelper: PrepareQvrTransport",
                            "bthal.qvrhelper: InitQvrTransport"};
  const Lines connected =
      connecting + Lines{"bthal.qvrhelper: InitQvrTransport: QVR client connect successfully",
                         "bthal.qvrhelper: PrepareQvrTransport: return ret (1), count:0",
                         "bthal.hwcontrol: PowerControl: Disabling, state_path: /x",
                         "bthal.hwcontrol: PowerControl: Enabling, state_path: /x"};
  const Lines co_processor_up =
      connected +
      Lines{"bthal.zvkproto: baudrate_change: Sending Update Baud Rate (6000000) command",
            "bthal.zvkproto: baudrate_change: Done", "bthal.zvkproto: lpm_setup: LPM Enabled"};
  const Lines down = {"bthal.zvkproto: Shutdown", "bthal.shim: Deinitialize"};
  const char unknown[] = "not known: nothing tells of its opening";

  const struct {
    const char* what;
    Lines lines;
    const char* state;
  } rows[] = {
      {"nothing", {}, unknown},
      {"just started", start, "closed"},
      {"port being opened", start + opening, "serial line /dev/ttySAC16, opening"},
      {"port at its first speed", port,
       "serial line /dev/ttySAC16, open, 115200 bit/s, low power off"},
      {"speed asked for, not agreed", port + Lines{fast[0]},
       "serial line /dev/ttySAC16, open, 115200 bit/s, low power off"},
      {"up", line_up, "serial line /dev/ttySAC16, open, 4000000 bit/s, low power on"},
      {"started again by itself: the stack only resets",
       line_up + Lines{"bthal.zvkproto: AcceleratedReset"},
       "serial line /dev/ttySAC16, open, 4000000 bit/s, low power on"},
      {"low power given up", line_up + Lines{"bthal.hwcontrol: LpmTeardown: LPM Disabled"},
       "serial line /dev/ttySAC16, open, 4000000 bit/s, low power off"},
      {"down", line_up + down, "serial line /dev/ttySAC16, closed"},
      {"down, and its reader notices",
       line_up + down + Lines{"bthal.hci_h4: OnDataReady: Unexpected EOF"},
       "serial line /dev/ttySAC16, closed"},
      {"up once more, before its speed", line_up + down + port,
       "serial line /dev/ttySAC16, open, 115200 bit/s, low power off"},
      {"stream that cannot be followed",
       line_up + Lines{"bthal.hci_h4: OnDataReady: Unimplemented Packet Type: 7 detected!",
                       "bthal.zvkproto: Shutdown"},
       "serial line /dev/ttySAC16, lost: OnDataReady: Unimplemented Packet Type: 7 detected!"},
      {"HCI socket in place of the port",
       line_up + down + Lines{"bthal.hwcontrol: UserialOpen: USERIAL (14) Ready"},
       "HCI socket, open, low power off"},
      {"co-processor being connected to", connecting, "co-processor, connecting"},
      {"co-processor", connected, "co-processor, connected, low power off"},
      {"co-processor up", co_processor_up, "co-processor, connected, 6000000 bit/s, low power on"},
      {"co-processor down", co_processor_up + down, "co-processor, closed"},
      {"co-processor that refuses power", connected + Lines{"bthal.qvrhelper: Deinitialize"},
       "co-processor, closed"},
      {"co-processor gone",
       co_processor_up + Lines{"bthal.qvrhelper: handle_qvr_connection_event: QVR transport "
                               "disconnected from ULK...exiting"},
       "co-processor, lost: handle_qvr_connection_event: QVR transport disconnected from "
       "ULK...exiting"},
      {"serial line after a co-processor", co_processor_up + down + port,
       "serial line /dev/ttySAC16, open, 115200 bit/s, low power off"},
      {"log that begins in the middle", fast + Lines{"bthal.zvkproto: lpm_setup: LPM Enabled"},
       unknown},
      {"log that begins in the middle, closed since", fast + down, "closed"},
      {"earlier service of the same number", line_up + start, "closed"},
      {"another service", start + Lines{"5342 bthal.hwcontrol: userial_tty_open: open /dev/x"},
       "closed"},
  };
  for (const auto& row : rows) EXPECT_EQ(StateAfter(row.lines), row.state) << row.what;
}

TEST(TransportRecords, LastTimesOfSteps_StandInForALogThatDoesNotReachBack) {
  const std::string on = "Timestamp of PowerControl: Enabling, state_path: /x: 23:59:59:990\n";
  const std::string off = "Timestamp of PowerControl: Disabling, state_path: /x: 10:00:00:000\n";
  const std::string tty = "Timestamp of userial_tty_open: open /dev/ttySAC16: 23:59:59:991\n";
  const std::string ready = "Timestamp of USERIAL Ready FD: <14>, type: <1>: 00:00:00:041\n";
  const std::string earlier = "Timestamp of USERIAL Ready FD: <14>, type: <1>: 23:59:00:000\n";
  const std::string socket = "Timestamp of USERIAL Ready FD: <14>, type: <0>: 00:00:00:001\n";
  const std::string closed = "Timestamp of UserialClose [ IN]: 10:00:00:000\n";
  const char unknown[] = "not known: nothing tells of its opening";
  const struct {
    const char* what;
    std::string section;
    const char* state;
  } rows[] = {
      {"nothing", "", unknown},
      {"port, around midnight", tty + ready + on, "serial line /dev/ttySAC16, open"},
      {"power off", closed + tty + ready + off, "closed"},
      {"socket after a port", closed + tty + socket + on, "HCI socket, open"},
      {"co-processor", on, "co-processor, connected"},
      {"co-processor after a port", closed + tty + earlier + on, "co-processor, connected"},
      {"power that is somebody else's", tty + ready, "serial line /dev/ttySAC16, open"},
      {"that, opened and closed in an order that does not show", closed + tty + ready, unknown},
      {"damaged", "Timestamp of PowerControl: Enabling\nTimestamp of : \n: 1:2:3\n", unknown},
  };
  for (const auto& row : rows) {
    TransportState state(kService);
    ReadTransportRecords(row.section, &state);
    EXPECT_EQ(state.Describe(), row.state) << row.what;
  }
}

TEST(WholeLog, OlderFileFirst) {
  const test::TempDir folder;
  const auto read = [&] {
    Lines lines;
    ReadWholeLog(folder / "log", [&](const std::string& line) { lines.push_back(line); });
    return lines;
  };
  EXPECT_EQ(read(), Lines());
  std::ofstream(folder / "log") << "three\n";
  EXPECT_EQ(read(), Lines({"three"}));
  std::ofstream(folder / "log.1") << "one\ntwo\n";
  EXPECT_EQ(read(), Lines({"one", "two", "three"}));
}

}  // namespace
}  // namespace bthalctl
