// The HAL object from a stack's coming to its end: all that it takes hold of is let go of.
#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <set>

#include "bluetooth_hci.h"
#include "bthal/bring_up_script.h"
#include "bthal/child_case.h"
#include "bthal/kernel_file.h"
#include "support/temp_dir.h"
#include "transport_shim.h"

namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::sp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;
using android::hardware::bluetooth::V1_1::zvkbtlinux::BluetoothHci;
using testing::ElementsAre;

// A stack of this process, which keeps what is linked to its death.
class Stack : public IBluetoothHciCallbacks {
 public:
  Return<void> initializationComplete(Status status) override {
    completions.push_back(status);
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>&) override { return Void(); }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>&) override { return Void(); }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>&) override { return Void(); }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>&) override { return Void(); }
  Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t) override {
    linked.insert(recipient);
    return true;
  }
  Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
    fprintf(stderr, "test: unlinked\n");
    return linked.erase(recipient) == 1;
  }
  void Die() {
    ASSERT_EQ(linked.size(), 1u);
    (*linked.begin())->serviceDied(0, sp<IBluetoothHciCallbacks>(this));
  }

  std::vector<Status> completions;
  std::set<sp<hidl_death_recipient>> linked;
};

// A handset whose controller is brought up for each stack, and put to sleep when nothing is sent.
class Hal : public testing::Test {
 protected:
  void SetUp() override {
    const std::string& root = test::RootFolder();
    test::WriteFile(root + "/vendor/firmware/tovu/ZVK.hcd", "");
    test::WriteFile(root + "/proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55");
    test::WriteFile(root + "/sys/class/rfkill/rfkill0/type", "wlan\n");
    test::WriteFile(root + "/sys/class/rfkill/rfkill1/type", "bluetooth\n");
    test::WriteFile(power_, "x");
    android::base::SetProperty("persist.bluetooth.disable.accelerate.bt.on", "true");
  }
  // One for the process: it has threads that stay.
  static BluetoothHci& hal() {
    static auto* hal = new sp<BluetoothHci>(new BluetoothHci);
    return **hal;
  }
  // Attaches the stack, and has a packet wake the controller.
  void Attach(const sp<Stack>& stack) {
    hal().initialize_1_1(stack);
    EXPECT_THAT(stack->completions, ElementsAre(Status::SUCCESS));
    EXPECT_EQ(stack->linked.size(), 1u);
    EXPECT_TRUE(shim::IsInitialized());
    EXPECT_EQ(test::ReadFile(power_), "1");
    hal().sendHciCommand(hidl_vec<uint8_t>{0x01, 0x10, 0x00});
    EXPECT_FALSE(files_.WakeLockReleased());
  }
  void ExpectPowerOff() {
    EXPECT_FALSE(shim::IsUserialReady());
    EXPECT_EQ(test::ReadFile(power_), "0");
    EXPECT_EQ(files_.driver.Text().back(), '0');
    EXPECT_TRUE(files_.WakeLockReleased());
  }

  const std::string power_ = test::RootFolder() + "/sys/class/rfkill/rfkill1/state";
  test::LowPowerFiles files_;
  test::LinkedPty uart_{test::RootFolder() + test::kUartPort};
  test::LinkedPty coexistence_{test::RootFolder() + "/dev/wbrc"};
  test::ScriptedController controller_{
      uart_, [](const test::Bytes& command) { return test::BringUpAnswer(command); }};
};

TEST_F(Hal, Close_EndsEverythingInItsOrder) {
  const sp<Stack> stack = new Stack;
  Attach(stack);
  testing::internal::CaptureStderr();
  hal().close();
  const std::string log = testing::internal::GetCapturedStderr();
  size_t at = 0;
  for (const char* step :
       {" BluetoothHci::close()\n", "test: unlinked\n", ": Disable Bluetooth HAL Extensions\n",
        " perform_close\n", " closeHci\n", " Shutdown\n", "LPM disabling\n", " Deinitialize\n",
        "PowerControl: Disabling", "closeHci: hci_handle_ = nullptr\n", " DeviceClose\n",
        " BluetoothHci::close() Done\n"}) {
    const size_t found = log.find(step);
    ASSERT_TRUE(found != std::string::npos && found >= at) << step << "is out of order:\n" << log;
    at = found;
  }
  EXPECT_EQ(test::CountOf("test: unlinked", log), 1u);
  EXPECT_EQ(stack->linked.size(), 0u);
  ExpectPowerOff();
}

TEST_F(Hal, DeadStack_LeavesNothingToTheNext) {
  const sp<Stack> dead = new Stack, next = new Stack;
  Attach(dead);
  dead->Die();
  ExpectPowerOff();
  EXPECT_EQ(dead->linked.size(), 1u) << "there is nobody to be unlinked from";
  Attach(next);
  hal().close();
  EXPECT_EQ(next->linked.size(), 0u);
  ExpectPowerOff();
}

TEST_F(Hal, Sigterm_PowersOffAndTheProcessStays) {
  const sp<Stack> stack = new Stack;
  Attach(stack);
  raise(SIGTERM);
  EXPECT_TRUE(test::WaitFor([&] { return test::ReadFile(power_) == "0"; }));
  ExpectPowerOff();
  hal().close();
}

}  // namespace
