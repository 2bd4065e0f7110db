// The extensions while several callers use them, and while Bluetooth goes off and on under them.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "bluetooth_Activity.h"
#include "bluetooth_ccc.h"
#include "bluetooth_ewp.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "bthal/command_sender.h"
#include "bthal/log_capture.h"
#include "bthal/scripted_controller.h"
#include "bthal/uart_rig.h"
#include "controller_activity_watcher.h"
#include "extensions.h"
#include "hci_inject.h"
#include "support/wait.h"
#include "transport_shim.h"

namespace {

namespace vendor = hardware::nuvexa::bluetooth;
using namespace android::hardware::bluetooth;
using android::sp;
using android::hardware::hidl_array;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using test::Bytes;
using test::ScriptedController;
using test::UartRig;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ccc::V1_0::LmpEventId;
using vendor::ccc::V1_1::implementation::Address;
using vendor::ccc::V1_1::implementation::BluetoothCcc;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::ext::V1_0::implementation::BluetoothExt;
using vendor::sar::V1_1::implementation::BluetoothSar;

Bytes Command(uint16_t opcode) {
  return {static_cast<uint8_t>(opcode), static_cast<uint8_t>(opcode >> 8), 0};
}

uint16_t OpcodeOf(const Bytes& command) {
  return static_cast<uint16_t>(command[0] | command[1] << 8);
}

// Callers of opcodes of their own get their own answers, callers of the same one share them: nobody
// waits for one that another has had. The controller accepts opcodes whose lowest bit is 0.
TEST(ExtensionRaces, SeveralInjectWhileAStackSends_EachGetsItsOwnAnswer) {
  const test::LogCapture log;
  const int count = test::Count("commands of each caller", 200);
  UartRig rig;
  ScriptedController controller(rig.pty(), [](const Bytes& command) {
    return ScriptedController::Complete(command, OpcodeOf(command) & 1 ? 0x0C : 0x00);
  });
  ASSERT_TRUE(rig.Open());
  BluetoothExt::OnBluetoothEnabled(rig.flow().get());
  const sp<BluetoothExt> service = new BluetoothExt;

  constexpr uint16_t kOpcodes[] = {0xFC80, 0xFC81, 0xFC82, 0xFC83, 0xFC84, 0xFC84, 0xFC84, 0xFC84};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (const uint16_t opcode : kOpcodes) {
    threads.emplace_back([&, opcode] {
      for (int i = 0; i < count; ++i) {
        const bool accepted = service->setBluetoothCmdPacket(opcode, hidl_vec<uint8_t>{1, 2});
        if (accepted != (opcode % 2 == 0)) ++wrong;
      }
    });
  }
  threads.emplace_back([&] {
    const Bytes command = Command(0x1001);
    for (int i = 0; i < count; ++i) {
      rig.flow()->Send(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);

  // The stack got its own answers, and those that callers who share them leave over.
  const Bytes own = ScriptedController::Complete(Command(0x1001), 0x0C);
  const Bytes shared = ScriptedController::Complete(Command(0xFC84), 0x00);
  int received = 0;
  EXPECT_TRUE(test::WaitFor([&] {
    for (const UartRig::Packet& packet : rig.TakeReceived()) {
      if (packet.bytes == shared) continue;
      EXPECT_EQ(packet.bytes, own);
      ++received;
    }
    return received >= count;
  }));
  EXPECT_EQ(received, count);
  // No credit is lost: all commands went out, and the next one goes at once.
  const size_t callers = std::size(kOpcodes) + 1;
  EXPECT_TRUE(test::WaitFor(
      [&] { return controller.Commands().size() == callers * static_cast<size_t>(count); }));
  EXPECT_TRUE(service->setBluetoothCmdPacket(0xFC80, {}));
  BluetoothExt::OnBluetoothDisabled();
}

// Its calls are never made: the controller reports no event.
class Client : public vendor::ccc::V1_1::IBluetoothCccCallback {
  Return<void> lmpEventReceived(const vendor::ccc::V1_0::Timestamp&, const Address&,
                                vendor::ccc::V1_0::Direction, LmpEventId, uint16_t) override {
    return Void();
  }
  Return<void> lmpEventReceived_1_1(const vendor::ccc::V1_1::Timestamp&, const Address&,
                                    vendor::ccc::V1_0::Direction, LmpEventId, uint16_t) override {
    return Void();
  }
};

// Calls of all extensions, over and over, from a thread of each.
class Callers {
 public:
  explicit Callers(std::shared_ptr<activitywatcher::ControllerActivityWatcher> watcher) {
    const std::array<uint8_t, 6> address = {1, 2, 3, 4, 5, 6};
    const std::function<void()> calls[kCallers] = {
        // Waits inside its call.
        [s = sp<BluetoothExt>(new BluetoothExt)] { s->setBluetoothCmdPacket(0xFC80, {}); },
        [watcher = std::move(watcher)] {
          std::vector<activitywatcher::StateResidency> states;
          watcher->getStateResidency(&states);
        },
        [s = sp<BTChannelAvoidance>(new BTChannelAvoidance)] {
          s->setBluetoothChannelStatus(hidl_array<uint8_t, 10>(std::array<uint8_t, 10>{0xFF}));
        },
        [s = sp<BluetoothSar>(new BluetoothSar)] { s->setBluetoothTxPowerCap(40); },
        [s = sp<BluetoothEwp>(new BluetoothEwp)] { s->EnableEwp(100); },
        [s = sp<BluetoothCcc>(new BluetoothCcc), client = sp<Client>(new Client), address] {
          s->registerForLmpEvents_1_1(client, Address(address), {LmpEventId::CONNECT_IND});
          s->unregisterLmpEvents(Address(address));
        },
        [] {
          V1_1::zvkbtlinux::activity::BtActivitiesLogger::GetInstacne()->LogActivities(
              2, hidl_vec<uint8_t>{0x40, 0x20, 0x01, 0x00, 0xAA});
        }};
    for (size_t i = 0; i < kCallers; ++i) {
      threads_.emplace_back([this, i, call = calls[i]] {
        while (!stop_) {
          ++counts_[i];
          call();
          std::this_thread::sleep_for(std::chrono::microseconds(200));  // leaves the others room
        }
      });
    }
  }
  ~Callers() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

  // Returns once each of them but the first has begun a call after this one was made.
  void WaitForNewCalls() {
    for (size_t i = 1; i < kCallers; ++i) {
      EXPECT_TRUE(test::WaitFor([&, before = counts_[i].load()] { return counts_[i] > before; }));
    }
  }

 private:
  static constexpr size_t kCallers = 7;
  std::atomic<bool> stop_{false};
  std::atomic<int> counts_[kCallers] = {};
  std::vector<std::thread> threads_;
};

// The transport stays for a few rounds, as in a handset whose controller is never switched off, and
// is then made anew; every other one's controller answers nothing, so that all that was asked is
// under way at the end. Every third time the transport goes first, as after a reset by the
// coexistence device.
TEST(ExtensionRaces, OffAndOnWithACallInFlightOnEach) {
  const test::LogCapture log;
  const int count = test::Count("times off and on", 500);
  constexpr int kRoundsOfATransport = 5;
  const sp<test::CommandSender> hal = new test::CommandSender;
  const auto watcher = ndk::SharedRefBase::make<activitywatcher::ControllerActivityWatcher>(hal);
  Callers callers(watcher);
  for (int i = 0; i < count / kRoundsOfATransport; ++i) {
    const bool answering = i % 2 == 1;
    UartRig rig;
    ScriptedController controller(rig.pty(), [answering](const Bytes& command) {
      return answering ? ScriptedController::Complete(command, 0) : Bytes{};
    });
    ASSERT_TRUE(rig.Open());
    hal->Use(rig.flow());
    for (int round = 0; round < kRoundsOfATransport; ++round) {
      EnableExtensions(rig.flow().get());
      rig.flow()->RegisterEventWatcher(watcher.get());
      watcher->startWatcher();
      callers.WaitForNewCalls();
      if (i % 3 == 2 && round == kRoundsOfATransport - 1) hci::shim::Deinitialize();
      DisableExtensions();
      watcher->stopWatcher();
      rig.flow()->UnregisterEventWatcher(watcher.get());
    }
    hal->Use(nullptr);
    controller.Stop();
  }
}

}  // namespace
