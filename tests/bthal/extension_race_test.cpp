// The extensions while several callers use them, and while Bluetooth goes off and on under them.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

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
using test::Bytes;
using test::ScriptedController;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ccc::V1_0::LmpEventId;
using vendor::ccc::V1_1::implementation::Address;
using vendor::ccc::V1_1::implementation::BluetoothCcc;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::ext::V1_0::implementation::BluetoothExt;
using vendor::sar::V1_1::implementation::BluetoothSar;

class CccClient : public vendor::ccc::V1_0::IBluetoothCccCallback {
  android::hardware::Return<void> lmpEventReceived(const vendor::ccc::V1_0::Timestamp&,
                                                   const Address&, vendor::ccc::V1_0::Direction,
                                                   LmpEventId, uint16_t) override {
    return {};
  }
};

// A call of each extension; the first two wait inside, for answers to the same command.
std::vector<std::function<void()>> Calls(
    const std::shared_ptr<activitywatcher::ControllerActivityWatcher>& watcher) {
  const std::array<uint8_t, 6> address = {1, 2, 3, 4, 5, 6};
  const auto inject = [s = sp<BluetoothExt>(new BluetoothExt)] {
    s->setBluetoothCmdPacket(0xFC80, {});
  };
  return {inject,
          inject,
          [watcher] {
            std::vector<activitywatcher::StateResidency> states;
            watcher->getStateResidency(&states);
          },
          [s = sp<BTChannelAvoidance>(new BTChannelAvoidance)] {
            s->setBluetoothChannelStatus(hidl_array<uint8_t, 10>(std::array<uint8_t, 10>{0xFF}));
          },
          [s = sp<BluetoothSar>(new BluetoothSar)] { s->setBluetoothTxPowerCap(40); },
          [s = sp<BluetoothEwp>(new BluetoothEwp)] { s->EnableEwp(100); },
          [s = sp<BluetoothCcc>(new BluetoothCcc), client = sp<CccClient>(new CccClient), address] {
            s->registerForLmpEvents(client, Address(address), {LmpEventId::CONNECT_IND});
            s->unregisterLmpEvents(Address(address));
          },
          [] {
            V1_1::zvkbtlinux::activity::BtActivitiesLogger::GetInstacne()->LogActivities(
                2, hidl_vec<uint8_t>{0x40, 0x20, 0x01, 0x00, 0xAA});
          }};
}

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
  std::atomic<bool> stop{false};
  std::atomic<int> counts[8] = {};
  std::vector<std::thread> threads;
  for (const std::function<void()>& call : Calls(watcher)) {
    threads.emplace_back([&stop, call, &made = counts[threads.size()]] {
      while (!stop) {
        ++made;
        call();
        std::this_thread::sleep_for(std::chrono::microseconds(200));  // leaves the others room
      }
    });
  }
  for (int i = 0; i < count / kRoundsOfATransport; ++i) {
    const bool answering = i % 2 == 1;
    test::UartRig rig;
    ScriptedController controller(rig.pty(), [answering](const Bytes& command) {
      return answering ? ScriptedController::Complete(command, 0) : Bytes{};
    });
    ASSERT_TRUE(rig.Open());
    hal->Use(rig.flow());
    for (int round = 0; round < kRoundsOfATransport; ++round) {
      EnableExtensions(rig.flow().get());
      rig.flow()->RegisterEventWatcher(watcher.get());
      watcher->startWatcher();
      for (size_t c = 2; c < std::size(counts); ++c) {
        EXPECT_TRUE(test::WaitFor([&, before = counts[c].load()] { return counts[c] > before; }));
      }
      if (i % 3 == 2 && round == kRoundsOfATransport - 1) hci::shim::Deinitialize();
      DisableExtensions();
      watcher->stopWatcher();
      rig.flow()->UnregisterEventWatcher(watcher.get());
    }
    hal->Use(nullptr);
    controller.Stop();
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
