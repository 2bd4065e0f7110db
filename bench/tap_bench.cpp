// What a capture costs: events and round trips through the service, from the serial line to its
// client, with nobody at the tap and with a capture that is read. Traffic and turns as in
// relay_bench, without real-time priority. Processor time a packet of the thread that reads the
// line, and of the whole service. usage: tap_bench [--json] [SECONDS]    SECONDS: of paced events
// each (5)
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <cutils/native_handle.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "daemon_relay.h"
#include "measure.h"
#include "program.h"
#include "serial_controller.h"
#include "tests/support/temp_dir.h"

namespace {

using android::base::unique_fd;
using bench::Row;
using Hci = android::hardware::bluetooth::V1_1::IBluetoothHci;

constexpr int kRounds = 5;

struct Cost {
  double reader_us = 0;  // a packet
  double service_us = 0;
  bench::Figures figures;
};

// A capture of everything, read and thrown away.
class Reader {
 public:
  Reader() {
    if (!android::base::Pipe(&source_, &target_)) throw std::runtime_error("no pipe");
    NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
    native_handle_t* const handle = native_handle_init(storage, 1, 0);
    handle->data[0] = target_.get();
    (void)Hci::getService()->debug(handle, {"capture", "pcapng"}).isOk();
    target_.reset();
    thread_ = std::thread([fd = source_.get(), this] {
      std::array<char, 65536> buffer;
      for (ssize_t n; (n = read(fd, buffer.data(), buffer.size())) > 0;) bytes_ += n;
    });
  }
  ~Reader() {
    thread_.join();  // the service has ended
    if (bytes_ < 1000) fprintf(stderr, "the capture is empty\n");
  }

 private:
  unique_fd source_, target_;
  ssize_t bytes_ = 0;
  std::thread thread_;
};

// Nanoseconds on a processor so far, by thread.
std::map<std::string, double> ThreadTimes(pid_t pid) {
  std::map<std::string, double> times;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::istringstream(test::ReadFile(task.path() / "schedstat")) >> times[task.path().filename()];
  }
  return times;
}

Cost MeasureWith(bool capture, const bench::HandsetRoot& root, int seconds) {
  bench::SerialController controller;
  root.UseSerialLine(controller.tty());
  bench::Sink sink;
  std::unique_ptr<Reader> reader;
  Cost cost;
  {
    const bench::Daemon service(root, bench::Scheduling::kOrdinary);
    bench::DaemonRelay relay(service, &sink);
    bench::AwaitPath(&relay, &sink);
    if (capture) reader = std::make_unique<Reader>();
    const pid_t pid = relay.pids()[0];
    std::map<std::string, double> before = ThreadTimes(pid);
    cost.figures = Measure(seconds, &controller, &relay, &sink);
    double busiest = 0, all = 0;
    for (const auto& [thread, time] : ThreadTimes(pid)) {
      busiest = std::max(busiest, time - before[thread]);
      all += time - before[thread];
    }
    const auto packets = static_cast<double>(cost.figures.sent + 2 * cost.figures.round_trips);
    cost.reader_us = busiest / packets / 1000;
    cost.service_us = all / packets / 1000;
  }
  return cost;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void MeasureAll(int seconds) {
  const test::TempDir folder;
  const bench::HandsetRoot root(folder.path());
  bench::BeClientOn(root.path());
  struct Runs {
    std::vector<double> reader, service;
    std::vector<bench::Figures> figures;
  };
  std::array<Runs, 2> runs;
  for (int round = 0; round < kRounds; ++round) {
    for (const bool capture : {false, true}) {
      const Cost cost = MeasureWith(capture, root, std::max(1, seconds / kRounds));
      runs[capture].reader.push_back(cost.reader_us);
      runs[capture].service.push_back(cost.service_us);
      runs[capture].figures.push_back(cost.figures);
    }
  }
  for (const bool capture : {false, true}) {
    Row row("tap", capture ? "capture" : "off");
    row.Add("reader_us", Median(runs[capture].reader), 2);
    row.Add("service_us", Median(runs[capture].service), 2);
    AddFigures(bench::Combine(runs[capture].figures), &row);
    row.Print();
  }
  Row ratio("tap-ratio", "capture/off");
  ratio.Add("reader", Median(runs[1].reader) / Median(runs[0].reader), 3);
  ratio.Add("service", Median(runs[1].service) / Median(runs[0].service), 3);
  ratio.Print();
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunProgram("tap_bench", argc, argv, 5, MeasureAll);
}
