#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <asm/termbits.h>
#include <fcntl.h>
#include <grp.h>
#include <root_folder/root_folder.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/doctor/findings.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;
using ::android::base::unique_fd;

// From <sys/ioctl.h>'s kernel headers, which <asm/termbits.h> does not have.
constexpr int kCts = 0x020;

// "NAME (PID)" of the other processes that have the device open.
std::vector<std::string> Holders(const struct stat& device) {
  std::vector<std::string> holders;
  std::error_code ignored;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", ignored)) {
    const std::string pid = process.path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    if (pid == std::to_string(getpid())) continue;
    fs::directory_iterator entry(process.path() / "fd", ignored);
    for (; !ignored && entry != fs::directory_iterator(); entry.increment(ignored)) {
      struct stat other {};
      if (stat(entry->path().c_str(), &other) != 0 || !S_ISCHR(other.st_mode)) continue;
      if (other.st_rdev != device.st_rdev) continue;
      std::string name;
      ::android::base::ReadFileToString((process.path() / "comm").string(), &name);
      // The simulated handset is the other end of its pseudo-terminal, which it keeps open.
      if (name != "zvksim\n") holders.push_back(::android::base::Trim(name) + " (" + pid + ")");
      break;
    }
  }
  return holders;
}

// What the port has after it was asked for speed, CRTSCTS and 8N1.
Finding TrySpeed(int fd, const termios2& before, unsigned speed) {
  termios2 wanted = before;
  wanted.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CSIZE | PARENB | CSTOPB);
  wanted.c_cflag |= BOTHER | CS8 | CRTSCTS | CLOCAL | CREAD;
  wanted.c_ispeed = wanted.c_ospeed = speed;
  Finding finding{"speed", Level::kOk, std::to_string(speed) + " bit/s with CRTSCTS", ""};
  termios2 got{};
  if (ioctl(fd, TCSETS2, &wanted) != 0 || ioctl(fd, TCGETS2, &got) != 0) {
    finding.level = Level::kFault;
    finding.text += std::string(": refused, ") + strerror(errno);
  } else if (got.c_ospeed != speed) {
    finding.level = Level::kFault;
    finding.text += ": the port falls to " + std::to_string(got.c_ospeed) + " bit/s";
  } else if ((got.c_cflag & CRTSCTS) == 0) {
    finding.level = Level::kFault;
    finding.text += ": the port has no hardware flow control";
  }
  if (finding.level == Level::kFault) {
    finding.advice = "use a port that does 115200 and 4000000 bit/s with RTS and CTS";
  }
  return finding;
}

void CheckLine(Findings& findings, int fd) {
  termios2 before{};
  if (ioctl(fd, TCGETS2, &before) != 0) return;
  for (const unsigned speed : {115200u, 4000000u}) {
    findings.push_back(TrySpeed(fd, before, speed));
  }
  ioctl(fd, TCSETS2, &before);
  int lines = 0;
  if (ioctl(fd, TIOCMGET, &lines) != 0) {
    findings.push_back({"CTS", Level::kOk, "this kind of port has no such line", ""});
  } else if ((lines & kCts) != 0) {
    findings.push_back({"CTS", Level::kOk, "is high: the controller lets bytes through", ""});
  } else {
    findings.push_back({"CTS", Level::kWarning, "is low: not a byte will leave the port",
                        "is the controller powered, and its RTS wired to this CTS?"});
  }
}

// Who may open a port that we may not.
std::string AdviceForAccess(const struct stat& device) {
  const group* const owner = getgrgid(device.st_gid);
  const std::string name = owner == nullptr ? std::to_string(device.st_gid) : owner->gr_name;
  return "run as root, or join its group: usermod -aG " + name + " USER, and log in anew";
}

}  // namespace

void CheckPort(Findings& findings) {
  const std::string type = Setting("UserialType", "1");
  if (type != "1") {
    findings.push_back({"port", Level::kOk,
                        type == "2" ? "the controller is behind a co-processor"
                                    : "the kernel's HCI user channel of hci0",
                        ""});
    return;
  }
  const std::string path = Setting("UartPort", "/dev/ttySAC16");
  const std::string real = root_folder::Resolve(path);
  std::error_code ignored;
  const std::string target = fs::canonical(real, ignored).string();
  const std::string shown = target.empty() || target == real ? real : real + " -> " + target;
  struct stat device {};
  if (stat(real.c_str(), &device) != 0) {
    findings.push_back({"port", Level::kFault, real + ": " + strerror(errno),
                        "is the adapter plugged in? \"bthalctl prepare-root\" sets the link"});
    return;
  }
  if (!S_ISCHR(device.st_mode)) {
    findings.push_back({"port", Level::kFault, shown + " is no device", "set UartPort to a tty"});
    return;
  }
  if (const std::vector<std::string> holders = Holders(device); !holders.empty()) {
    // The kernel cuts names off after 15 characters.
    const bool ours = std::all_of(holders.begin(), holders.end(), [](const std::string& holder) {
      return holder.rfind("android.hardwar", 0) == 0;
    });
    findings.push_back(
        {"port", ours ? Level::kOk : Level::kFault,
         shown + " is open in " + ::android::base::Join(holders, ", ") + "; its line is left alone",
         ours ? "" : "end that program: it takes bytes away from the service"});
    return;
  }
  const unique_fd fd(open(real.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.ok()) {
    const int error = errno;
    findings.push_back(
        {"port", Level::kFault, shown + ": " + strerror(error),
         error == EACCES ? AdviceForAccess(device) : "the service cannot open it either"});
    return;
  }
  if (isatty(fd.get()) == 0) {
    findings.push_back({"port", Level::kFault, shown + " is no tty", "set UartPort to a tty"});
    return;
  }
  findings.push_back({"port", Level::kOk, shown + ", free", ""});
  CheckLine(findings, fd.get());
}

}  // namespace bthalctl
