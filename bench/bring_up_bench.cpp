// A bring-up against its floor: the waits that it must keep, plus its bytes at line speed. The
// simulator moves bytes at line speed and answers at once; the floor is computed from its trace,
// the time is the service's own, from the stack's initialize to its completion. One row a case;
// fails when the best run, to which the machine has added least, is above 1.05 times the floor. A
// line that rests saves up 2 ms of bytes at most, which may hide as much of the service's own time
// between two answered records. usage: bring_up_bench [--json] [RUNS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "row.h"
#include "tests/support/wait.h"
#include "tests/system/handset.h"

namespace {

constexpr double kMostOfFloor = 1.05;
constexpr double kBitsPerByte = 10;  // start bit, 8 data bits, stop bit

// Milliseconds: the port settles, the minidriver starts, the firmware starts, the controller wakes
// for the command after sleep mode was switched on.
constexpr double kWaitsMs = 50 + 50 + 500 + 10;

struct Case {
  const char* chip;
  const char* download;
  int firmware_bytes;
};

struct Result {
  double line_ms;
  double measured_ms;
};

// "command 4c fc 03 …": the size on the line, type byte included.
size_t LineBytes(const std::string& packet) {
  const size_t hex = packet.find(' ') + 1;
  const bool command = packet.compare(0, hex, "command ") == 0;
  const auto byte = [&](size_t at) {
    return std::stoul(packet.substr(hex + 3 * at, 2), nullptr, 16);
  };
  return command ? 4 + byte(2) : 3 + byte(1);
}

// Of everything on the line up to the answer to the device address, the last step.
double LineMs(const std::vector<test::TraceLine>& trace) {
  double seconds = 0;
  double bits_per_second = 115200;
  for (const test::TraceLine& line : trace) {
    if (line.direction != '-') {
      seconds += static_cast<double>(LineBytes(line.text)) * kBitsPerByte / bits_per_second;
      if (line.text.find("event 0e 04 01 01 fc") == 0) return seconds * 1e3;
      continue;
    }
    const std::string at = "controller at ";
    if (line.text.find(at) == 0) bits_per_second = std::stod(line.text.substr(at.size()));
    if (line.text.find("firmware \"") == 0) bits_per_second = 115200;
  }
  throw std::runtime_error("the bring-up did not come to its end");
}

// Milliseconds of the day at which the line with text was logged: "DATE HH:MM:SS.mmm …".
double LoggedMs(const std::string& log, const std::string& text) {
  const size_t at = log.find(text);
  if (at == std::string::npos) throw std::runtime_error("no \"" + text + "\" in the log");
  const size_t begin = log.rfind('\n', at) + 1;  // npos + 1 is the first line's
  int hours = 0, minutes = 0;
  double seconds = 0;
  if (sscanf(log.c_str() + begin, "%*s %d:%d:%lf", &hours, &minutes, &seconds) != 3) {
    throw std::runtime_error("no time in the log");
  }
  return ((hours * 60 + minutes) * 60 + seconds) * 1e3;
}

Result BringUp(const Case& what) {
  test::Handset handset(
      "", test::Mode::kPlain,
      {"--pace", "--chip", what.chip, "--firmware-size", std::to_string(what.firmware_bytes)});
  handset.StartService();
  const test::CtlResult used = handset.Ctl({"--no-holder", "cmd", "read_bd_addr"});
  if (used.exit_code != 0) throw std::runtime_error(used.output);
  const std::string log = handset.Log();
  const double measured = LoggedMs(log, "BluetoothHci::initialize() completed") -
                          LoggedMs(log, "bthal.zvkbtlinux: initialize_impl");
  return {LineMs(handset.Trace()), measured};
}

bool Measure(const Case& what, int runs) {
  double line_ms = 0;
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const Result result = BringUp(what);
    line_ms = result.line_ms;
    times.push_back(result.measured_ms);
  }
  std::sort(times.begin(), times.end());
  const double median = times[times.size() / 2];
  const double floor = kWaitsMs + line_ms;
  bench::Row("chip", what.chip)
      .Add("download", what.download)
      .Add("firmware_bytes", static_cast<size_t>(what.firmware_bytes))
      .Add("waits_ms", kWaitsMs, 0)
      .Add("line_ms", line_ms, 1)
      .Add("floor_ms", floor, 1)
      .Add("best_ms", times.front(), 0)
      .Add("median_ms", median, 0)
      .Add("worst_ms", times.back(), 0)
      .Add("best_of_floor", times.front() / floor, 3)
      .Add("median_of_floor", median / floor, 3)
      .Print();
  return times.front() <= kMostOfFloor * floor;
}

}  // namespace

int main(int argc, char** argv) {
  bench::TakeSwitches(&argc, argv);
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
  constexpr Case kCases[] = {{"B5", "fast", 120000},
                             {"B5", "fast", 500000},
                             {"20", "answered", 120000},
                             {"20", "answered", 500000}};
  bool good = true;
  try {
    for (const Case& what : kCases) good = Measure(what, runs) && good;
  } catch (const std::exception& error) {
    fprintf(stderr, "bring_up_bench: %s\n", error.what());
    return 1;
  }
  if (!good) fprintf(stderr, "bring_up_bench: above %.2f times the floor\n", kMostOfFloor);
  return good ? 0 : 1;
}
