// A Bluetooth stack.
// usage: system_test_stack [close | WHERE NTH ACTION TRAFFIC_MS]
//
// Without arguments it attaches and stays; with "close" it also detaches at once. It prints what it
// is given, "complete STATUS" and "event BYTES", and how its calls end: "CALL done" or "CALL
// failed".
//
// With a plan it attaches, sends data for TRAFFIC_MS through the controller's loopback and closes,
// but does ACTION at the moment that WHERE and NTH say:
//   WHERE   main                        after NTH ms of traffic
//           init, event, acl, sco, iso  inside the NTH callback of that kind
//   ACTION  none
//           close
//           die           SIGKILL
//           die-in-close  NTH microseconds after close() began; with main only
//           flood         long ACL packets without a pause are the traffic; with main only
//           await         the traffic lasts until the controller has answered; with main only
// It prints "ready" once it is attached, "answered" when the controller answers commands, and
// "closed". Exit codes: 0 closed, 3 there is no service or it died, 5 a call does not return.
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>
#include <hidl/HidlTransportSupport.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kNoService = 3;
constexpr int kStuck = 5;
constexpr unsigned kStuckAfterSeconds = 60;
constexpr milliseconds kPatience{30000};  // for a service that starts, or serves another stack

struct Plan {
  std::string where;
  int nth;
  std::string action;
  int traffic_ms;
};

void Print(const std::string& line) {
  puts(line.c_str());
  fflush(stdout);
}

[[noreturn]] void Die() {
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

class Stack : public IBluetoothHciCallbacks {
 public:
  Stack(sp<IBluetoothHci> service, std::optional<Plan> plan)
      : service_(std::move(service)), plan_(std::move(plan)) {}

  bool Initialize() { return service_->initialize_1_1(this).isOk(); }
  bool Close() {
    if (plan_ && plan_->action == "die-in-close") {
      std::thread([this] {
        std::this_thread::sleep_for(std::chrono::microseconds(plan_->nth));
        Die();
      }).detach();
    }
    return service_->close().isOk();
  }

  // False when the place stays taken, or the service died.
  bool Attach() {
    const auto end = steady_clock::now() + kPatience;
    do {
      refused_ = false;
      if (!Initialize()) return false;
      if (!refused_) return true;
      std::this_thread::sleep_for(milliseconds(5));
    } while (steady_clock::now() < end);
    return false;
  }

  // False when the service died.
  bool Traffic() {
    Send(&IBluetoothHci::sendHciCommand, {0x02, 0x18, 0x01, 0x01});  // Write Loopback Mode
    const auto start = steady_clock::now();
    bool acted = plan_->where != "main" || plan_->action == "die-in-close";
    hidl_vec<uint8_t> longest(4 + 1021);
    longest[0] = 0x01;
    longest[2] = 1021 & 0xFF;
    longest[3] = 1021 >> 8;
    const auto end = start + milliseconds(plan_->traffic_ms);
    while (plan_->action == "flood" && alive_ && steady_clock::now() < end) {
      Send(&IBluetoothHci::sendAclData, longest);
    }
    const auto last = end + (plan_->action == "await" ? kPatience : milliseconds(0));
    for (uint8_t i = 0; alive_ && steady_clock::now() < (answered_ ? end : last); ++i) {
      Send(&IBluetoothHci::sendAclData, {0x01, 0x00, 0x02, 0x00, i, i});
      Send(&IBluetoothHci::sendScoData, {0x02, 0x00, 0x02, i, i});
      Send(&IBluetoothHci::sendIsoData, {0x00, 0x8E, 0x05, 0x00, i, 0x00, 0x01, 0x00, i});
      Send(&IBluetoothHci::sendHciCommand, {0x09, 0x10, 0x00});  // Read BD_ADDR
      if (!acted && steady_clock::now() >= start + milliseconds(plan_->nth)) {
        acted = true;
        Act();
      }
      std::this_thread::sleep_for(milliseconds(5));
    }
    return alive_;
  }
  bool answered() const { return answered_; }

  Return<void> initializationComplete(Status status) override {
    if (!plan_) Print("complete " + std::to_string(static_cast<int>(status)));
    refused_ = status != Status::SUCCESS;
    return refused_ ? Void() : Came("init");
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& event) override {
    if (!plan_) {
      std::string line = "event";
      char text[4];
      for (const uint8_t byte : event) {
        snprintf(text, sizeof text, " %02X", byte);
        line += text;
      }
      Print(line);
    }
    if (IsAnswer(event)) answered_ = true;
    return Came("event");
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>&) override { return Came("acl"); }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>&) override { return Came("sco"); }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>&) override { return Came("iso"); }

 private:
  // To Read BD_ADDR: carried out, or looped back.
  static bool IsAnswer(const hidl_vec<uint8_t>& event) {
    const size_t at = event.size() > 0 && event[0] == 0x19 ? 2 : 3;
    return event.size() > at + 1 && event[at] == 0x09 && event[at + 1] == 0x10;
  }
  Return<void> Came(const char* kind) {
    bool now = false;
    {
      std::lock_guard<std::mutex> guard(lock_);
      now = plan_ && plan_->where == kind && ++came_[kind] == plan_->nth;
    }
    if (now) Act();
    return Void();
  }
  void Act() {
    if (plan_->action == "die") Die();
    if (plan_->action == "close") (void)service_->close().isOk();
  }
  void Send(Return<void> (IBluetoothHci::*operation)(const hidl_vec<uint8_t>&),
            const hidl_vec<uint8_t>& packet) {
    if (!((*service_).*operation)(packet).isOk()) alive_ = false;
  }

  const sp<IBluetoothHci> service_;
  const std::optional<Plan> plan_;
  std::atomic<bool> refused_{false};
  std::atomic<bool> alive_{true};
  std::atomic<bool> answered_{false};
  std::mutex lock_;
  std::map<std::string, int> came_;
};

sp<IBluetoothHci> FindService() {
  const auto end = steady_clock::now() + kPatience;
  sp<IBluetoothHci> service = IBluetoothHci::tryGetService();
  while (service == nullptr && steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(5));
    service = IBluetoothHci::tryGetService();
  }
  return service;
}

[[noreturn]] void Stay(const sp<Stack>& stack, bool close) {
  Print(stack->Initialize() ? "initialize done" : "initialize failed");
  if (close) Print(stack->Close() ? "close done" : "close failed");
  for (;;) pause();
}

int Misbehave(const sp<Stack>& stack) {
  signal(SIGALRM, [](int) { _exit(kStuck); });
  alarm(kStuckAfterSeconds);
  if (!stack->Attach()) return kNoService;
  Print("ready");
  const bool alive = stack->Traffic();
  if (stack->answered()) Print("answered");
  if (!alive || !stack->Close()) return kNoService;
  Print("closed");
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const bool planned = argc == 5;
  if (planned) android::hardware::configureRpcThreadpool(4, false);
  const sp<IBluetoothHci> service = FindService();
  if (service == nullptr) return kNoService;
  if (!planned)
    Stay(new Stack(service, std::nullopt), argc == 2 && argv[1] == std::string("close"));
  return Misbehave(new Stack(service, Plan{argv[1], atoi(argv[2]), argv[3], atoi(argv[4])}));
}
