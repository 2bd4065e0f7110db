// The daemon as a relay, beside socat relaying the same kind of pseudo-terminal to a socket:
// events of 40 bytes at a paced 300 kB/s (processor share, delay), and round trips of a command and
// its event. One row a relay, key=value. Needs socat.
// usage: relay_bench [SECONDS]
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>
#include <dirent.h>
#include <fcntl.h>
#include <hwbinder/ProcessState.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "scripted_controller.h"

namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;
using Clock = std::chrono::steady_clock;

constexpr size_t kEventSize = 40;
constexpr double kBytesPerSecond = 300e3;
constexpr int kRoundTrips = 5000;
constexpr uint8_t kTimestampedEvent = 0x01;         // a vendor sub-event that the service passes on
constexpr uint8_t kCommand[] = {0x09, 0x10, 0x00};  // Read BD_ADDR

int64_t NowNs() { return Clock::now().time_since_epoch().count(); }

// An event that carries the time at which it was sent.
std::vector<uint8_t> TimestampedEvent() {
  std::vector<uint8_t> packet(1 + kEventSize, 0);
  packet[0] = 0x04;
  packet[1] = 0xFF;
  packet[2] = kEventSize - 2;
  packet[3] = kTimestampedEvent;
  const int64_t now = NowNs();
  memcpy(&packet[4], &now, sizeof now);
  return packet;
}

// Where a relay delivers events (without type byte) to.
class Sink {
 public:
  void OnEvent(const uint8_t* event, size_t size) {
    const int64_t now = NowNs();
    std::lock_guard<std::mutex> guard(lock_);
    if (size == kEventSize && event[0] == 0xFF && event[2] == kTimestampedEvent) {
      int64_t sent;
      memcpy(&sent, event + 3, sizeof sent);
      delays_us_.push_back(static_cast<double>(now - sent) * 1e-3);
    } else {
      ++answers_;
    }
    changed_.notify_all();
  }
  bool WaitForAnswers(size_t count) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(5), [&] { return answers_ >= count; });
  }
  bool WaitForEvents(size_t count) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(5),
                             [&] { return delays_us_.size() >= count; });
  }
  size_t answers() {
    std::lock_guard<std::mutex> guard(lock_);
    return answers_;
  }
  std::vector<double> TakeDelays() {
    std::lock_guard<std::mutex> guard(lock_);
    return std::move(delays_us_);
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<double> delays_us_;
  size_t answers_ = 0;
};

class Folder {
 public:
  Folder() {
    char name[] = "/tmp/bthal-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }
  void Write(const std::string& name, const std::string& text) const {
    const std::filesystem::path file = path_ + "/" + name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
  }

 private:
  std::string path_;
};

class Process {
 public:
  explicit Process(std::vector<std::string> command) {
    std::vector<char*> argv;
    for (std::string& argument : command) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      const int null = open("/dev/null", O_RDWR);
      dup2(null, STDERR_FILENO);
      execvp(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Process() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  // Processor time of all threads so far.
  double CpuSeconds() const {
    double nanoseconds = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task")) {
      double run = 0;
      std::ifstream(task.path() / "schedstat") >> run;
      nanoseconds += run;
    }
    return nanoseconds * 1e-9;
  }

 private:
  pid_t pid_;
};

double Percentile(std::vector<double>* values, double share) {
  if (values->empty()) return -1;
  const auto at = static_cast<size_t>(share * static_cast<double>(values->size() - 1));
  std::nth_element(values->begin(), values->begin() + static_cast<long>(at), values->end());
  return (*values)[at];
}

// send hands a command to the relay.
template <typename SendCommand>
void Measure(const char* name, int seconds, bench::ScriptedController* controller,
             const Process& process, Sink* sink, const SendCommand& send) {
  const auto count = static_cast<size_t>(seconds * kBytesPerSecond / (1 + kEventSize));
  const double cpu_before = process.CpuSeconds();
  const auto begin = Clock::now();
  for (size_t i = 0; i < count; ++i) {
    const auto due =
        begin + std::chrono::nanoseconds(static_cast<int64_t>(
                    static_cast<double>(i) * (1 + kEventSize) / kBytesPerSecond * 1e9));
    std::this_thread::sleep_until(due);
    controller->Send(TimestampedEvent());
  }
  const bool complete = sink->WaitForEvents(count);
  const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  const double cpu = (process.CpuSeconds() - cpu_before) / elapsed;
  std::vector<double> delays = sink->TakeDelays();

  std::vector<double> trips;
  for (int i = 0; i < kRoundTrips; ++i) {
    const size_t answers = sink->answers();
    const int64_t sent = NowNs();
    send();
    if (!sink->WaitForAnswers(answers + 1)) break;
    trips.push_back(static_cast<double>(NowNs() - sent) * 1e-3);
  }
  printf(
      "relay=%s events=%zu/%zu%s cpu_share=%.4f delay_p50_us=%.1f delay_p99_us=%.1f "
      "round_trips=%zu round_trip_p50_us=%.1f round_trip_p99_us=%.1f\n",
      name, delays.size(), count, complete ? "" : " LOST", cpu, Percentile(&delays, 0.5),
      Percentile(&delays, 0.99), trips.size(), Percentile(&trips, 0.5), Percentile(&trips, 0.99));
  fflush(stdout);
}

class Callbacks : public IBluetoothHciCallbacks {
 public:
  explicit Callbacks(Sink* sink) : sink_(sink) {}
  Return<void> initializationComplete(Status status) override {
    ready_ = status == Status::SUCCESS;
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& event) override {
    sink_->OnEvent(event.data(), event.size());
    return Void();
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  bool ready() const { return ready_; }

 private:
  Sink* const sink_;
  std::atomic<bool> ready_{false};
};

void MeasureDaemon(const std::string& program, const Folder& folder, int seconds) {
  bench::ScriptedController controller;
  folder.Write("vendor/etc/bluetooth/bt_vendor.conf", "UartPort = /dev/ttyS0\n");
  folder.Write("proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55\n");
  folder.Write("vendor/firmware/tovu/ZVK.hcd", std::string("\x4e\xfc\x04\xff\xff\xff\xff", 7));
  std::filesystem::create_directories(folder.path() + "/dev");
  std::filesystem::create_symlink(controller.tty(), folder.path() + "/dev/ttyS0");
  mkfifo((folder.path() + "/dev/wbrc").c_str(), 0600);
  const Process daemon({program});

  Sink sink;
  const sp<IBluetoothHci> hal = IBluetoothHci::getService("default");
  const sp<Callbacks> callbacks = new Callbacks(&sink);
  if (hal == nullptr) throw std::runtime_error("the daemon does not register");
  const Return<void> initialized = hal->initialize_1_1(callbacks);
  if (!initialized.isOk()) throw std::runtime_error("initialize: " + initialized.description());
  if (!callbacks->ready()) throw std::runtime_error("the controller does not come up");
  const hidl_vec<uint8_t> command(std::begin(kCommand), std::end(kCommand));
  Measure("bthal", seconds, &controller, daemon, &sink,
          [&] { (void)hal->sendHciCommand(command).isOk(); });
}

void MeasureSocat(const Folder& folder, int seconds) {
  bench::ScriptedController controller;
  const std::string path = folder.path() + "/socat";
  const Process socat({"socat", controller.tty() + ",raw,echo=0", "UNIX-LISTEN:" + path});

  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (Clock::now() > deadline) throw std::runtime_error("socat does not come up");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Sink sink;
  std::thread reader([&] {
    std::vector<uint8_t> pending;
    uint8_t buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
      pending.insert(pending.end(), buffer, buffer + n);
      size_t at = 0;
      while (pending.size() - at >= 3 && pending.size() - at >= 3u + pending[at + 2]) {
        sink.OnEvent(&pending[at + 1], 2u + pending[at + 2]);
        at += 3u + pending[at + 2];
      }
      pending.erase(pending.begin(), pending.begin() + static_cast<long>(at));
    }
  });
  std::vector<uint8_t> command = {0x01};
  command.insert(command.end(), std::begin(kCommand), std::end(kCommand));
  Measure("socat", seconds, &controller, socat, &sink, [&] {
    if (write(fd, command.data(), command.size()) < 0) throw std::runtime_error("socat is gone");
  });
  shutdown(fd, SHUT_RDWR);
  reader.join();
  close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  try {
    const Folder folder;
    setenv("BTHAL_ROOT", folder.path().c_str(), 1);
    android::hardware::ProcessState::self()->startThreadPool();
    MeasureSocat(folder, seconds);
    MeasureDaemon(self + "/../bin/android.hardware.bluetooth@1.1-service.zvkbtlinux", folder,
                  seconds);
  } catch (const std::exception& error) {
    fprintf(stderr, "relay_bench: %s\n", error.what());
    return 1;
  }
}
