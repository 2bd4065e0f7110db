// The whole service: the HAL object, its extensions, the transport, low power, with a controller
// at the far end of the line, a stack and a client, in simulated time (surroundings.h). An input is
// a row of events of the controller as they come; those of three codes are other steps: 00 LENGTH
// COMMAND, a command of the stack; 01 N SERVICE METHOD PARCEL, a client's call with a parcel of
// 4 * N bytes (the corpus has one of each); 02 STEP, one of Step with what it takes. Each input
// begins with a stack that is attached.
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <hidl/HidlTransportSupport.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <set>
#include <utility>

#include "base/wake_lock.h"
#include "bluetooth_Activity.h"
#include "bluetooth_ccc.h"
#include "bluetooth_ewp.h"
#include "bluetooth_hci.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "evidence/evidence.h"
#include "hci_inject.h"
#include "root_folder/root_folder.h"
#include "stack/attached_stack.h"
#include "support/pty.h"
#include "support/temp_dir.h"
#include "surroundings.h"
#include "target.h"
#include "transport_shim.h"

namespace {

using namespace android::hardware::bluetooth;
using android::sp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_vec;
using android::hardware::IBinder;
using android::hardware::Parcel;
using android::hardware::Return;
using fuzz::Require;
using fuzz::Surroundings;
namespace shim = hci::shim;
namespace vendor = ::hardware::nuvexa::bluetooth;
namespace ccc = vendor::ccc;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::ext::V1_0::implementation::BluetoothExt;
using vendor::sar::V1_1::implementation::BluetoothSar;

enum Step : uint8_t {
  kCloseAndOpen,
  kLineFails,  // to take anything, or takes it again
  kClientDies,
  kReport,
  kDumps,  // can be written from here on: each takes a thousand times as long as an event
  kAnswer,
  kClose,
  kOpen,
  kStackDies,
  kResetNotice,
  kTime,         // so many tenths of a second
  kThread,       // runs that has waited longest
  kController,   // what it does with commands that are waited for: see Manner
  kFromHost,     // type, length, packet
  kToHost,       // the same
  kStray,        // a byte where a packet begins
  kCloseInside,  // the stack closes when it is called next
  kAccelerated,  // or not
  kReads,        // of so many bytes
  kLineIsFull,   // after so many bytes, for so many tenths of a second
  kTerminate,    // SIGTERM
  kCoProcessor,  // is the way to the controller from the next bring-up on, or no longer
};

enum Manner : uint8_t { kAnswers, kRefuses, kIsSilent, kGoesOnWithTheInput };

using Address = android::hardware::hidl_array<uint8_t, 6>;

// A remote object that dies when told to.
template <typename Interface>
class Mortal : public Interface {
 public:
  bool IsLinked() const { return !recipients_.empty(); }
  void Die() {
    for (const auto& recipient : std::exchange(recipients_, {})) recipient->serviceDied(0, this);
  }

 private:
  Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t) override {
    recipients_.insert(recipient);
    return true;
  }
  Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
    return recipients_.erase(recipient) == 1;
  }
  std::set<sp<hidl_death_recipient>> recipients_;
};

// A client of link-layer events.
class CccClient : public Mortal<ccc::V1_1::IBluetoothCccCallback> {
  Return<void> lmpEventReceived(const ccc::V1_0::Timestamp&, const Address&, ccc::V1_0::Direction,
                                ccc::V1_0::LmpEventId, uint16_t) override {
    return {};
  }
  Return<void> lmpEventReceived_1_1(const ccc::V1_1::Timestamp&, const Address&,
                                    ccc::V1_0::Direction, ccc::V1_0::LmpEventId,
                                    uint16_t) override {
    return {};
  }
};

class Stack : public Mortal<V1_1::IBluetoothHciCallbacks> {
 public:
  explicit Stack(std::function<void(uint8_t, const hidl_vec<uint8_t>&)> take)
      : take_(std::move(take)) {}
  int completions = 0;

 private:
  using Packet = hidl_vec<uint8_t>;
  Return<void> initializationComplete(V1_0::Status) override {
    ++completions;
    return {};
  }
  Return<void> hciEventReceived(const Packet& packet) override { return Take(4, packet); }
  Return<void> aclDataReceived(const Packet& packet) override { return Take(2, packet); }
  Return<void> scoDataReceived(const Packet& packet) override { return Take(3, packet); }
  Return<void> isoDataReceived(const Packet& packet) override { return Take(5, packet); }
  Return<void> Take(uint8_t type, const Packet& packet) {
    take_(type, packet);
    return {};
  }
  const std::function<void(uint8_t, const hidl_vec<uint8_t>&)> take_;
};

template <typename Interface>
sp<IBinder> BinderOf(Interface* service) {
  return android::hardware::toBinder<Interface>(sp<Interface>(service));
}

constexpr char kNotAccelerated[] = "persist.bluetooth.disable.accelerate.bt.on";
constexpr char kCoProcessorProperty[] = "persist.bluetooth.ulk.path.enabled";
constexpr char kPower[] = "/sys/class/rfkill/rfkill0/state";
constexpr uint16_t kUncounted = 0xFD5B;  // goes out beside the flow control when the stack sends it

std::string DumpFolder() { return root_folder::Resolve("/data/vendor/ssrdump"); }

uint16_t OpcodeIn(const std::string& packet, size_t at) {
  if (packet.size() < at + 2) return 0;
  return static_cast<uint16_t>(uint8_t(packet[at]) | uint8_t(packet[at + 1]) << 8);
}

class Handset {
 public:
  Handset() {
    fuzz::Put("/proc/bluetooth/timesync", "");
    fuzz::PutOnDisk("/proc/bluetooth/sleep/lpm", "");
    fuzz::PutOnDisk("/proc/bluetooth/sleep/btwrite", "");
    fuzz::Put("/proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55");
    fuzz::PutOnDisk("/sys/class/rfkill/rfkill0/type", "bluetooth\n");
    fuzz::PutOnDisk(kPower, "0");
    fuzz::PutOnDisk("/data/property", "");  // no folder: properties stay in memory
    fuzz::Put("/vendor/firmware/tovu/ZVK.hcd", "");
    fuzz::Put("/vendor/etc/bluetooth/bt_vendor.conf", "UartPort=/dev/ttyBT7\n");
    uart_ = std::make_unique<test::LinkedPty>(root_folder::Resolve("/dev/ttyBT7"));
    all_.on_packet = [this](uint8_t type, const std::string& packet) { OnPacket(type, packet); };
    all_.on_part = [this] {
      Require(all_.wake_lock || !shim::IsLpmRunning(),
              "the controller is awake when it is sent to");
    };
    all_.meanwhile = [this](bool endless) { return Meanwhile(endless); };
    hal_ = new V1_1::zvkbtlinux::BluetoothHci;
  }

  void Run(fuzz::Input* input) {
    try {
      Open();
      while (all_.RunThread()) {
      }
      Require(IsAttached() && all_.reader != nullptr && !all_.dead, "Bluetooth is on for a stack");
      input_ = input;
      while (!input->empty() && !all_.dead) {
        time_passes_ = false;
        Next(false);
        // On a line that fails the controller is woken and not sent to.
        if (broken_ && !time_passes_) sent_at_ = all_.now;
        if (!all_.dead) CheckAtRest();
      }
    } catch (const fuzz::Fatal&) {
      Require(input_ != nullptr, "a controller that answers is brought up");
      all_.dead = true;
    }
    End();
  }

 private:
  // Steps, each as the input goes on.
  void Next(bool in_a_wait) {
    const uint8_t code = input_->Byte(), length = input_->Byte();
    if (code == 2) return Take(static_cast<Step>(length), in_a_wait);
    if (code == 1) {
      const uint8_t called = input_->Byte(), method = input_->Byte();
      const std::string parcel = input_->Take(length * 4u);
      return in_a_wait ? void() : Call(called, method, parcel);
    }
    std::string bytes = input_->Take(length);
    bytes.resize(length);
    if (code == 0) return in_a_wait ? void() : Send(1, bytes);
    ToHost(4, std::string{static_cast<char>(code), static_cast<char>(length)} + bytes);
  }

  // A packet of type and length, as the input goes on.
  std::string Packet(uint8_t* type) {
    *type = static_cast<uint8_t>(2 + input_->Byte() % 4);
    const hci::HeaderFormat& format = hci::kHeaders[*type];
    std::string packet = input_->Take(format.size);
    packet.resize(format.size);
    const auto* header = reinterpret_cast<const uint8_t*>(packet.data());
    const size_t length = hci::PayloadLength(format, header);
    packet += input_->Take(length);
    packet.resize(format.size + length);
    return packet;
  }

  void Take(Step step, bool in_a_wait) {
    uint8_t type = 0;
    switch (step) {
      case kAnswer:
        if (outstanding_) Answer(0);
        return;
      case kToHost: {
        const std::string packet = Packet(&type);
        return ToHost(type, packet);
      }
      case kStray:
        broken_ = true;
        return all_.Deliver({static_cast<char>(input_->Byte() | 0x80)});
      case kResetNotice:
        return all_.ResetNotice();
      case kTime:
        time_passes_ = true;
        return all_.Pass(std::chrono::milliseconds(100) * input_->Byte());
      case kController:
        manner_ = static_cast<Manner>(input_->Byte() % 4);
        return;
      case kCloseInside:
        close_inside_ = true;
        return;
      case kReads:
        all_.read_size = input_->Byte() + 1u;
        return;
      case kLineIsFull: {
        all_.room = input_->Byte();
        const int tenths = input_->Byte() % 24;
        all_.full_for = std::chrono::milliseconds(100) * tenths;
        if (tenths >= 20) broken_ = true;  // the line counts as stuck
        return;
      }
      default:
        break;
    }
    if (in_a_wait) return;
    switch (step) {
      case kCloseAndOpen:
        Close();
        return Open();
      case kClose:
        return Close();
      case kOpen:
        return Open();
      case kLineFails:
        all_.fails = !all_.fails;
        broken_ = true;  // what it did not take counts as sent
        return;
      case kClientDies:
        return client_->Die();
      case kStackDies:
        return stack_->Die();
      case kThread:
        all_.RunThread();
        return;
      case kReport: {
        if (std::exchange(reported_, true)) return;
        return V1_1::zvkbtlinux::activity::BtActivitiesLogger::GetInstacne()
            ->DumpBtActivitiesStatistics(nowhere_.get());
      }
      case kDumps:
        dumps_ = std::filesystem::create_directories(DumpFolder() + "/coredump") || dumps_;
        return;
      case kFromHost: {
        const std::string packet = Packet(&type);
        return type == 4 ? void() : Send(type, packet);
      }
      case kTerminate:
        all_.Terminate();
        return all_.dead ? void() : CheckOff();
      case kAccelerated:
        return Accelerate(!accelerated_);
      case kCoProcessor:
        return ConnectThroughCoProcessor(!co_processor_);
      default:
        return;
    }
  }

  void Call(uint8_t service, uint8_t method, const std::string& bytes) {
    if (service >= binders_.size()) return;
    ++calls_;
    Parcel data, reply;
    data.receive(bytes.data(), bytes.size(), {},
                 {BinderOf<ccc::V1_1::IBluetoothCccCallback>(client_.get())});
    binders_[service]->transact(method, data, &reply, 0, [](Parcel&) {});
  }

  void Open() {
    if (++opened_ > 6) return;
    const int before = stack_->completions;
    hal_->initialize_1_1(stack_);
    Require(all_.dead || stack_->completions > before, "a stack that attaches is told");
    if (std::exchange(died_, false)) hal_->OnStackDied(stack_);
  }

  void Close() {
    hal_->close();
    if (all_.dead) return;
    Require(!stack_->IsLinked(), "a stack that has closed is not waited for");
    if (shim::IsUserialReady()) return;
    Require(all_.coexistence == nullptr, "the coexistence device is closed");
    CheckOff();
  }

  void CheckOff() {
    Require(all_.reader == nullptr, "nobody reads the line");
    Require(!all_.wake_lock, "nobody stays awake");
    Require(fuzz::Get(kPower) == "0", "the controller is off");
  }

  void Accelerate(bool accelerated) {
    if (std::exchange(accelerated_, accelerated) == accelerated) return;
    android::base::SetProperty(kNotAccelerated, accelerated ? "false" : "true");
  }

  void ConnectThroughCoProcessor(bool co_processor) {
    if (std::exchange(co_processor_, co_processor) == co_processor) return;
    android::base::SetProperty(kCoProcessorProperty, co_processor ? "true" : "false");
  }

  // A packet of the stack.
  void Send(uint8_t type, const std::string& packet) {
    const auto header = static_cast<hci::HciPacketType>(type);
    const hidl_vec<uint8_t> bytes(packet.begin(), packet.end());
    const bool right = hci::LengthIsRight(header, bytes.data(), bytes.size());
    const bool up = all_.reader != nullptr && !broken_;
    if (type != 1) {
      expected_data_ = packet;
      data_sent_ = false;
      if (type == 2) hal_->sendAclData(bytes);
      if (type == 3) hal_->sendScoData(bytes);
      if (type == 5) hal_->sendIsoData(bytes);
      return Require(broken_ || data_sent_ == (right && up), "data goes out at once");
    }
    const bool counted = OpcodeIn(packet, 0) != kUncounted;
    const bool idle = !outstanding_ && credits_ && waiting_.empty();
    if (right && up && counted) waiting_.push_back(packet);
    stack_sends_ = true;
    hal_->sendHciCommand(bytes);
    stack_sends_ = false;
    if (idle) Require(waiting_.empty(), "a command with nothing before it goes out at once");
  }

  // A packet that the line has taken.
  void OnPacket(uint8_t type, const std::string& packet) {
    if (std::exchange(opening_, all_.openings) != all_.openings) {
      outstanding_ = false;
      broken_ = all_.room != SIZE_MAX && all_.full_for >= std::chrono::seconds(2);
      credits_ = true;
      waiting_.clear();
    }
    sent_at_ = all_.now;
    if (type != 1) {
      Require(!data_sent_ && packet == expected_data_, "data goes out once, as it came");
      data_sent_ = true;
      return;
    }
    const uint16_t opcode = OpcodeIn(packet, 0);
    if (opcode == kUncounted && stack_sends_) return;
    Require(!outstanding_, "one command is under way at a time");
    Require(credits_ || !all_.reading, "a command that waits goes out with a credit");
    outstanding_ = true;
    opcode_ = opcode;
    const auto found = std::find(waiting_.begin(), waiting_.end(), packet);
    of_the_stack_ = found == waiting_.begin() && found != waiting_.end();
    if (of_the_stack_) waiting_.pop_front();
    Require(of_the_stack_ || found == waiting_.end() || IsOwn(), "commands keep their order");
  }

  // Whether the service itself may send such a command as the last one.
  bool IsOwn() const {
    return calls_ > 0 || opcode_ == 0x0C03 || opcode_ == 0xFC79 || opcode_ == 0xFC01;
  }

  void ToHost(uint8_t type, const std::string& packet) {
    // One without payload comes with the next one; the target "stream" has those.
    if (all_.reader == nullptr || all_.reading || packet.size() == hci::kHeaders[type].size) return;
    bool is_for_the_stack = type != 4;
    if (type == 4) {
      const auto code = static_cast<uint8_t>(packet[0]);
      const size_t at = code == 0x0E ? 3 : code == 0x0F ? 4 : code == 0x19 ? 2 : packet.size();
      const bool grants = at < packet.size() && (code == 0x19 || packet[at - 1] != 0);
      if (!outstanding_) {
        credits_ = credits_ || grants;
      } else if (OpcodeIn(packet, at) == opcode_) {  // any event completes opcode 0
        outstanding_ = false;
        credits_ = grants;
        is_for_the_stack = at < packet.size() && of_the_stack_ && !IsOwn();
      }
    }
    to_host_ = std::string(1, static_cast<char>(type)) + packet;
    const bool attached = IsAttached();
    all_.Deliver(std::string(to_host_));
    if (attached && is_for_the_stack) Require(to_host_.empty(), "answers and data are passed on");
    if (type == 4 && credits_ && !outstanding_ && !broken_ && all_.reader != nullptr) {
      Require(waiting_.empty(), "a credit is used for a command that waits");
    }
  }

  bool IsAttached() const { return V1_1::zvkbtlinux::AttachedStack::Get().g_cb() == stack_; }

  // What the stack gets.
  void OnTold(uint8_t type, const hidl_vec<uint8_t>& packet) {
    std::string bytes(1, static_cast<char>(type));
    bytes.append(packet.begin(), packet.end());
    Require(bytes == to_host_, "packets reach the stack once, as they came, in their order");
    to_host_.clear();
    if (std::exchange(close_inside_, false)) hal_->close();
  }

  void Answer(uint8_t status) {
    std::string event = {0x0E, 6, 1, static_cast<char>(opcode_), static_cast<char>(opcode_ >> 8)};
    event += {static_cast<char>(status), static_cast<char>(0x99), 0};
    ToHost(4, event);
  }

  bool Meanwhile(bool endless) {
    if (manner_ == kGoesOnWithTheInput && input_ != nullptr && !input_->empty()) {
      Next(true);
      return true;
    }
    if (outstanding_ && manner_ != kIsSilent && !all_.reading && all_.reader != nullptr) {
      Answer(manner_ == kRefuses ? 0x0C : 0);
      return true;
    }
    if (!outstanding_ && !credits_ && manner_ != kIsSilent && !all_.reading) {
      ToHost(4, {0x0E, 4, 1, 0, 0, 0});
      return credits_;
    }
    if (!endless || !stack_->IsLinked()) return false;
    // A stack that waits for the answer to its initialize dies.
    try {
      stack_->Die();
    } catch (const fuzz::Blocked&) {
      died_ = true;
    }
    return true;
  }

  void CheckAtRest() {
    all_.Pass(std::chrono::seconds(0));
    if (all_.wake_lock) {
      Require(shim::IsUserialReady() && shim::IsLpmRunning(),
              "no wake lock while Bluetooth is off");
      Require(all_.now - sent_at_ <= std::chrono::milliseconds(1700), "no wake lock at rest");
    }
  }

  // Leaves nothing of an input for the next one, but that Bluetooth stays on if nothing is amiss.
  void End() {
    input_ = nullptr;
    manner_ = kAnswers;
    close_inside_ = died_ = all_.fails = false;
    all_.read_size = 65536;
    all_.room = SIZE_MAX;
    client_->Die();
    Accelerate(true);
    ConnectThroughCoProcessor(false);
    do {
      const bool off = all_.dead || broken_ || IsOnCoProcessor() ||
                       V1_1::zvkbtlinux::debug::Evidence::Get().crash_dump.Started();
      if (all_.dead) all_.threads.clear();
      all_.dead = false;
      try {
        if (off) SwitchOff();
        hal_->close();
        while (all_.RunThread()) {
        }
      } catch (const fuzz::Fatal&) {
        all_.dead = true;
      }
    } while (all_.dead);
    opened_ = calls_ = 0;
    reported_ = false;
    waiting_.clear();
    to_host_.clear();
    if (std::exchange(dumps_, false)) std::filesystem::remove_all(DumpFolder());
  }

  static bool IsOnCoProcessor() { return shim::GetUserialType() == hci::kUserialCoProcessor; }

  // As a reset of the chip does, which waits for nobody. On a co-processor it would end the
  // process.
  void SwitchOff() {
    if (IsOnCoProcessor()) shim::Deinitialize();
    all_.ResetNotice();
    while (all_.wake_lock) WakeLock::Get().Release();
    broken_ = false;
  }

  Surroundings& all_ = Surroundings::Get();
  std::unique_ptr<test::LinkedPty> uart_;
  sp<V1_1::zvkbtlinux::BluetoothHci> hal_;
  const sp<CccClient> client_ = new CccClient;
  const sp<Stack> stack_ =
      new Stack([this](uint8_t type, const auto& packet) { OnTold(type, packet); });
  const std::vector<sp<IBinder>> binders_ = {
      BinderOf<vendor::bt_channel_avoidance::V1_0::IBTChannelAvoidance>(new BTChannelAvoidance),
      BinderOf<vendor::sar::V1_1::IBluetoothSar>(new BluetoothSar),
      BinderOf<vendor::ewp::V1_0::IBluetoothEwp>(new BluetoothEwp),
      BinderOf<ccc::V1_1::IBluetoothCcc>(new ccc::V1_1::implementation::BluetoothCcc),
      BinderOf<vendor::ext::V1_0::IBluetoothExt>(new BluetoothExt),
  };
  const android::base::unique_fd nowhere_{open("/dev/null", O_WRONLY | O_CLOEXEC)};

  fuzz::Input* input_ = nullptr;
  Manner manner_ = kAnswers;
  bool accelerated_ = true;
  bool co_processor_ = false;
  bool close_inside_ = false;
  bool died_ = false;    // the stack, while it was being attached
  bool broken_ = false;  // the line, until it is opened anew
  bool time_passes_ = false;
  bool dumps_ = false;
  bool reported_ = false;
  int opened_ = 0;
  int calls_ = 0;

  // What the invariants need; of the line that is open.
  int opening_ = 0;
  bool outstanding_ = false;
  bool of_the_stack_ = false;  // the command that is under way
  uint16_t opcode_ = 0;
  bool credits_ = true;
  std::deque<std::string> waiting_;  // commands of the stack that have not gone out
  std::string expected_data_;
  bool data_sent_ = false;
  std::chrono::nanoseconds sent_at_{0};
  std::string to_host_;  // the last packet, unless the stack has got it
  bool stack_sends_ = false;
};

}  // namespace

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds;
  for (const char* file :
       {"flow_control.txt", "flow_watchers.txt", "invalid_events.txt", "quality_reports.txt",
        "debug_events.txt", "ccc.txt", "ewp.txt", "sar.txt", "residency.txt"}) {
    Append(&seeds, Packets(file));
  }
  Append(&seeds, Packets("activity_packets.txt", 1));
  Append(&seeds, Prefixed({2, kDumps}, Packets("debug_events.txt")));
  const std::string command = {0, 3, 3, 0x0C, 0}, again = {2, kOpen};
  // Two commands, an answer to the first with and without a credit.
  for (const char credits : {'\0', '\1'}) {
    seeds.push_back(command +
                    std::string{0, 3, 1, 0x10, 0, 0x0E, 4, credits, 3, 0x0C, 0, 2, kAnswer});
  }
  seeds.push_back(std::string{2, kLineIsFull, 2, 18} + command + std::string{2, kTime, 20});
  for (char step = 0; step <= kCoProcessor; ++step) {
    // Some take what follows.
    seeds.push_back(command + std::string{2, step, 1} + command + again);
    seeds.push_back(std::string{2, kAccelerated, 2, step, 20} + again + command);
    seeds.push_back(std::string{2, kController, kIsSilent, 2, step, 1} + again + command);
    seeds.push_back(std::string{2, kController, kGoesOnWithTheInput, 2, kCloseAndOpen, 2, step});
    seeds.push_back(std::string{2, kCoProcessor, 2, kAccelerated, 2, kCloseAndOpen, 2, step, 1} +
                    command + again);
  }
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* const handset = new Handset;
  fuzz::Log(size);
  fuzz::Input input(data, size);
  handset->Run(&input);
  return 0;
}
