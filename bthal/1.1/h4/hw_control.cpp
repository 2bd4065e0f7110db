#define LOG_TAG "bthal.hwcontrol"

#include "h4/hw_control.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <fcntl.h>
#include <log/log.h>
#include <root_folder/root_folder.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "evidence/bring_up_steps.h"
#include "evidence/debug_files.h"
#include "evidence/report.h"
#include "h4/line_settings.h"
#include "tap/tap.h"

namespace android::hardware::bluetooth::hwcontrol {
namespace {

using ::android::base::unique_fd;

constexpr char kLpmControlPort[] = "/proc/bluetooth/sleep/btwrite";
constexpr char kLpmDriver[] = "/proc/bluetooth/sleep/lpm";
constexpr uint32_t kUserialTty = 1;
constexpr std::chrono::milliseconds kPortSettleTime{50};
constexpr std::chrono::milliseconds kWakeTime{10};

std::optional<speed_t> TermiosSpeed(UartBaudRate rate) {
  switch (rate) {
    case UartBaudRate::kRate115200:
      return B115200;
    case UartBaudRate::kRate3000000:
      return B3000000;
    case UartBaudRate::kRate4000000:
      return B4000000;
    default:
      return std::nullopt;
  }
}

// The state file of the first rfkill entry of type "bluetooth"; empty when there is none.
std::string rfkill_state_finder() {
  for (int index = 0;; ++index) {
    const std::string entry = "/sys/class/rfkill/rfkill" + std::to_string(index);
    const std::string path = entry + "/type";
    const unique_fd fd(root_folder::Open(path, O_RDONLY));
    if (fd.get() < 0) {
      LOG(INFO) << __func__ << ": Open(" << path << "): " << strerror(errno) << " (" << errno
                << ")";
      return "";
    }
    std::string type;
    base::ReadFdToString(fd, &type);
    type = type.substr(0, type.find('\n'));
    LOG(DEBUG) << __func__ << ": rfkill candidate " << path << " is [" << type << "]";
    if (type == "bluetooth") {
      LOG(INFO) << __func__ << ": Use rfkill " << entry << "/state";
      return entry + "/state";
    }
  }
}

bool ConfigureTty(int fd) {
  termios settings{};
  if (tcgetattr(fd, &settings) != 0) return false;
  cfmakeraw(&settings);
  settings.c_cflag |= CRTSCTS;
  tcsetattr(fd, TCSANOW, &settings);
  tcflush(fd, TCIOFLUSH);
  tcsetattr(fd, TCSANOW, &settings);
  tcflush(fd, TCIOFLUSH);
  tcflush(fd, TCIOFLUSH);
  cfsetspeed(&settings, B115200);
  tcsetattr(fd, TCSANOW, &settings);
  tcflush(fd, TCIOFLUSH);
  CheckLineSettings(fd, static_cast<uint32_t>(UartBaudRate::kRate115200));
  return true;
}

unique_fd userial_tty_open(const std::string& port) {
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kTtyOpened, "%s: open %s", __func__, port.c_str());
  evidence::BringUpSteps::Get().Begin("serial port", port);
  evidence::SetBtUartDebugPort(port);
  unique_fd fd(root_folder::Open(port, O_RDWR | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0 || !ConfigureTty(fd.get())) {
    LOG(ERROR) << __func__ << ": Can't open Bluetooth UART port: " << strerror(errno);
    return {};
  }
  return fd;
}

unique_fd userial_socket_open() {
  // From the kernel's Bluetooth socket interface.
  constexpr int kBtProtoHci = 1;
  constexpr uint16_t kHciChannelUser = 1;
  struct {
    sa_family_t family;
    uint16_t device;
    uint16_t channel;
  } address = {AF_BLUETOOTH, 0, kHciChannelUser};

  unique_fd fd(socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, kBtProtoHci));
  if (fd.get() < 0) {
    LOG(ERROR) << __func__ << ": Can't create Bluetooth HCI socket: " << strerror(errno);
    return fd;
  }
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    LOG(ERROR) << __func__ << ": HCI User Channel Error: " << strerror(errno);
    fd.reset();
  }
  return fd;
}

bool WriteCharacter(int fd, char character) {
  return TEMP_FAILURE_RETRY(write(fd, &character, 1)) == 1;
}

}  // namespace

BtHwControl& BtHwControl::Get() {
  static auto* instance = new BtHwControl;
  return *instance;
}

bool BtHwControl::PowerControl(bool on) {
  const evidence::ScopedRecord anchor(AnchorType::kPowerControl, "PowerControl");
  const std::string state_path = rfkill_state_finder();
  if (state_path.empty()) {
    LOG(INFO) << __func__ << ": Power sequence is not controlled by Bluetooth HAL";
    return true;
  }
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kPowerState, "%s: %s, state_path: %s", __func__,
                       on ? "Enabling" : "Disabling", state_path.c_str());

  evidence::BringUpSteps::Get().Begin(on ? "power on" : "power off", state_path);
  const unique_fd fd(root_folder::Open(state_path, O_WRONLY | O_NOCTTY));
  if (fd.get() < 0) {
    LOG(ERROR) << __func__ << ": Unable to open rfkill state {" << state_path
               << "}: " << strerror(errno) << " (" << errno << ")";
    evidence::Report(BqrErrorCode::HostPowerUpController, "Unable to open rfkill state");
    return false;
  }
  while (!WriteCharacter(fd.get(), on ? '1' : '0')) {
    LOG(ERROR) << __func__ << ": Failed to change rfkill state: " << strerror(errno) << " ("
               << errno << ")";
    if (errno == EAGAIN) continue;
    evidence::Report(BqrErrorCode::HostPowerUpController, "Cannot write power control data");
    return false;
  }
  tap::Tap::Get().State("power", on ? "on" : "off");
  if (!on) evidence::BringUpSteps::Get().End();
  return true;
}

bool BtHwControl::UserialOpen(uint32_t userial_type, const std::string& uart_port) {
  const evidence::ScopedRecord anchor(AnchorType::kUserialOpen, "UserialOpen");
  unique_fd fd = userial_type == kUserialTty ? userial_tty_open(uart_port) : userial_socket_open();
  if (fd.get() < 0) {
    evidence::Report(BqrErrorCode::HostOpenUserial, "Host Open Port Error");
    return false;
  }
  if (userial_type == kUserialTty) std::this_thread::sleep_for(kPortSettleTime);
  LOG(INFO) << __func__ << ": USERIAL (" << fd.get() << ") Ready";
  evidence::BringUpSteps::Get().End();
  evidence::RecordFormat(AnchorType::kUserialReady, "USERIAL Ready FD: <%d>, type: <%u>", fd.get(),
                         userial_type);
  uart_fd_.store(fd.release(), std::memory_order_release);
  return true;
}

void BtHwControl::UserialClose() {
  const evidence::ScopedRecord anchor(AnchorType::kUserialClose, "UserialClose");
  unique_fd(uart_fd_.exchange(-1));
}

void BtHwControl::BaudrateChange(UartBaudRate rate) {
  const std::optional<speed_t> speed = TermiosSpeed(rate);
  if (!speed) {
    LOG(INFO) << __func__ << ": Baud rate (" << static_cast<uint32_t>(rate) << ") unsupported";
    return;
  }
  termios settings{};
  tcgetattr(UartFd(), &settings);
  cfmakeraw(&settings);
  cfsetspeed(&settings, *speed);
  tcsetattr(UartFd(), TCSANOW, &settings);
  tcflush(UartFd(), TCIOFLUSH);
  CheckLineSettings(UartFd(), static_cast<uint32_t>(rate));
}

bool BtHwControl::IsLpmRunning() {
  std::lock_guard<std::mutex> guard(lpm_lock_);
  return lpm_fd_.get() >= 0;
}

bool BtHwControl::LpmSetup() {
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kLpmEnabling, "%s: LPM enabling", __func__);
  std::lock_guard<std::mutex> guard(lpm_lock_);
  unique_fd control(root_folder::Open(kLpmControlPort, O_WRONLY | O_NOCTTY));
  lpm_fd_.reset();
  if (!control.ok()) {
    ALOGE("%s: Unable to open LPM control port, %s (%d)", __func__, strerror(errno), errno);
    LOG(ERROR) << __func__ << ": Unable to open LPM control port (" << kLpmControlPort
               << "): " << strerror(errno);
    return false;
  }
  const unique_fd driver(root_folder::Open(kLpmDriver, O_WRONLY | O_NOCTTY));
  if (!driver.ok()) {
    ALOGE("%s: Unable to open LPM driver, %s (%d)", __func__, strerror(errno), errno);
  } else if (!WriteCharacter(driver.get(), '1')) {
    LOG(ERROR) << __func__ << ": Unable to enable LPM driver (" << kLpmDriver
               << "): " << strerror(errno);
  } else if (!WriteCharacter(control.get(), '1')) {
    ALOGE("%s: Unable to wake up LPM: %s (%d)", __func__, strerror(errno), errno);
  } else {
    lpm_fd_ = std::move(control);
  }
  return lpm_fd_.ok();
}

void BtHwControl::LpmTeardown() {
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kLpmDisabling, "%s: LPM disabling", __func__);
  std::lock_guard<std::mutex> guard(lpm_lock_);
  lpm_fd_.reset();
  const unique_fd driver(root_folder::Open(kLpmDriver, O_WRONLY | O_NOCTTY));
  if (driver.get() < 0) {
    ALOGE("%s: Unable to close LPM driver, %s (%d)", __func__, strerror(errno), errno);
  } else if (!WriteCharacter(driver.get(), '0')) {
    LOG(ERROR) << __func__ << ": Unable to disable LPM driver (" << kLpmDriver
               << "): " << strerror(errno);
  }
  BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kLpmDisabled, "%s: LPM Disabled", __func__);
}

bool BtHwControl::LpmWakeUp() {
  {
    std::lock_guard<std::mutex> guard(lpm_lock_);
    if (lpm_fd_.get() < 0) return true;
    if (!WriteCharacter(lpm_fd_.get(), '1')) {
      ALOGE("%s: Unable to wake up LPM, %s (%d)", __func__, strerror(errno), errno);
      return false;
    }
  }
  std::this_thread::sleep_for(kWakeTime);
  evidence::RecordFormat(AnchorType::kLpmAssert, "%s: Assert", __func__);
  return true;
}

bool BtHwControl::LpmSuspend() {
  {
    std::lock_guard<std::mutex> guard(lpm_lock_);
    if (lpm_fd_.get() < 0) return true;
    if (WriteCharacter(lpm_fd_.get(), '0')) {
      evidence::RecordFormat(AnchorType::kLpmDeassert, "%s: Deassert", __func__);
      return true;
    }
    ALOGE("%s: Unable to suspend LPM, %s (%d)", __func__, strerror(errno), errno);
    LOG(ERROR) << __func__ << ": Unable to suspend LPM:" << strerror(errno);
    // Leaves the line in a known state.
    WriteCharacter(lpm_fd_.get(), '1');
  }
  std::this_thread::sleep_for(kWakeTime);
  return false;
}

void BtHwControl::GetFsDebugDump(int fd, const std::string& path) {
  evidence::dump_debugfs_to_fd(fd, path);
}

}  // namespace android::hardware::bluetooth::hwcontrol
