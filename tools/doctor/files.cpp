#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/terminal.h"
#include "tools/doctor/findings.h"
#include "tools/evidence/crash_list.h"
#include "tools/hci/packet.h"
#include "tools/wire/bytes.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;
using ::android::base::GetProperty;
using ::android::base::Trim;

std::optional<std::string> ReadBelow(const std::string& path) {
  std::string content;
  if (!::android::base::ReadFileToString(root_folder::Resolve(path), &content)) return std::nullopt;
  return content;
}

std::string FirstLine(const std::string& path) {
  const std::string content = ReadBelow(path).value_or("");
  return content.substr(0, content.find('\n'));
}

// In the service's order of choice.
std::vector<std::string> FirmwareNames(const std::string& of_chip) {
  std::vector<std::string> names;
  if (GetProperty("persist.bluetooth.le_audio_test", "") == "true" ||
      (::android::base::GetBoolProperty("persist.bluetooth.leaudio_switcher.enabled", false) &&
       GetProperty("ro.build.type", "") != "user")) {
    names.emplace_back("ZVK_LEAUDIO.hcd");
  }
  const std::string selected = GetProperty("persist.bluetooth.firmware.selection", "");
  if (selected == "BTFW_D.hcd" || selected == "BTFW_B.hcd") names.push_back(selected);
  if (!of_chip.empty()) names.push_back("ZVK_" + of_chip + ".hcd");
  names.emplace_back("ZVK.hcd");
  return names;
}

// A file of HCI command records. What an image with a header says of itself (sim/firmware/image.h)
// is compared: its size and CRC-32.
Finding InspectFirmware(const std::string& what, const std::string& path) {
  const std::string content = ReadBelow(path).value_or("");
  const wire::ByteView file(content);
  constexpr uint16_t kWriteRam = 0xFC4C, kLaunchRam = 0xFC4E;
  constexpr size_t kHeader = 4 + 56;  // the address in RAM, then the header itself
  size_t at = 0, records = 0, image = 0, image_size = 0;
  bool launch = false, headed = false;
  uLong sum = 0, wanted = 0;
  for (; at + 3 <= file.size() && at + 3 + file[at + 2] <= file.size(); ++records) {
    const uint16_t opcode = file.U16(at);
    const wire::ByteView params = file.Sub(at + 3, file[at + 2]);
    at += 3 + params.size();
    launch = launch || opcode == kLaunchRam;
    if (opcode != kWriteRam) continue;
    if (records == 0 && params.size() == kHeader && params.Sub(4, 8).Text() == "ZVKFWIMG") {
      headed = true;
      image_size = params.U32(4 + 16);
      wanted = params.U32(4 + 20);
    } else if (params.size() > 4) {
      sum = crc32(sum, params.data() + 4, static_cast<uInt>(params.size() - 4));
      image += params.size() - 4;
    }
  }
  Finding finding{"firmware", Level::kOk,
                  what + ": " + path + ", " + std::to_string(file.size()) + " bytes, " +
                      std::to_string(records) + " records",
                  ""};
  const char* mistake = nullptr;
  if (records == 0)
    mistake = "holds no HCI command";
  else if (at != file.size())
    mistake = "ends in the middle of a record";
  else if (headed && (image != image_size || sum != wanted))
    mistake = "is damaged: its checksum differs";
  if (mistake != nullptr) {
    finding.level = Level::kFault;
    finding.text += std::string(", ") + mistake;
    finding.advice = "copy the file anew";
  } else {
    finding.text += headed ? ", checksum right" : ", no checksum in it";
    if (!launch) finding.text += ", no launch record (the service sends its own)";
  }
  return finding;
}

// A file that the service uses if it is there.
void CheckUsable(Findings& findings, const char* what, const std::string& path, int mode,
                 Level otherwise, const std::string& advice) {
  const bool usable = access(root_folder::Resolve(path).c_str(), mode) == 0;
  findings.push_back({what, usable ? Level::kOk : otherwise,
                      usable ? path : path + ": " + strerror(errno), usable ? "" : advice});
}

}  // namespace

std::string Setting(const std::string& name, const std::string& otherwise) {
  std::string value = otherwise;
  for (const char* file :
       {"/vendor/etc/bluetooth/bt_vendor.conf", "/vendor/etc/bluetooth/bt_vendor_overlay.conf"}) {
    const std::string content = ReadBelow(file).value_or("");
    for (const std::string& line : ::android::base::Split(content, "\n")) {
      const size_t sign = line.find('=');
      if (sign == std::string::npos || line[0] == '#') continue;
      if (Trim(line.substr(0, sign)) == name) value = Trim(line.substr(sign + 1));
    }
  }
  return value;
}

void CheckPower(Findings& findings) {
  const std::string folder = "/sys/class/rfkill/rfkill";
  std::map<unsigned, std::string> switches;  // type by number
  std::error_code ignored;
  for (const fs::directory_entry& entry :
       fs::directory_iterator(root_folder::Resolve("/sys/class/rfkill"), ignored)) {
    unsigned number = 0;
    const std::string name = entry.path().filename().string();
    if (name.rfind("rfkill", 0) != 0 || !::android::base::ParseUint(name.substr(6), &number))
      continue;
    switches[number] = FirstLine(folder + std::to_string(number) + "/type");
  }
  unsigned reached = 0;  // the search ends at the first number that is missing
  while (switches.count(reached) != 0) ++reached;
  bool used = false;
  for (const auto& [number, type] : switches) {
    if (type != "bluetooth") continue;
    const std::string path = folder + std::to_string(number);
    Finding finding{"power", Level::kOk, path + ", state " + FirstLine(path + "/state"), ""};
    const std::string soft = FirstLine(path + "/soft"), hard = FirstLine(path + "/hard");
    if (!soft.empty()) {
      finding.text.append(", soft block ").append(soft).append(", hard block ").append(hard);
    }
    if (used) {
      finding.text += "; the service uses the first one";
    } else if (number > reached) {
      finding.level = Level::kWarning;
      finding.text +=
          "; the service does not find it: rfkill" + std::to_string(reached) + " is missing";
      finding.advice = "the power stays as it is; load the driver of this switch first, at boot";
    } else if (hard == "1") {
      finding.level = Level::kFault;
      finding.advice = "a switch or key of the machine holds Bluetooth off";
    } else if (access(root_folder::Resolve(path + "/state").c_str(), W_OK) != 0) {
      finding.level = Level::kFault;
      finding.text += ", not writable";
      finding.advice = "run the service as root, or give it the file";
    }
    used = used || number < reached;
    findings.push_back(finding);
  }
  if (!findings.empty() && findings.back().what == "power") return;
  findings.push_back({"power", Level::kWarning, "no rfkill entry of type bluetooth",
                      "switch the controller off and on yourself before the service starts"});
}

void CheckFirmware(Findings& findings) {
  for (const std::string chip : {"B5", "AE", ""}) {
    const std::string what = chip.empty() ? "any other chip" : "chip 0x" + chip;
    std::string chosen;
    for (const std::string& name : FirmwareNames(chip)) {
      if (chosen.empty() && root_folder::Exists("/vendor/firmware/tovu/" + name)) chosen = name;
    }
    if (chosen.empty()) {
      findings.push_back({"firmware", chip.empty() ? Level::kWarning : Level::kFault,
                          what + ": no file in /vendor/firmware/tovu", "copy the firmware there"});
      continue;
    }
    findings.push_back(InspectFirmware(what, "/vendor/firmware/tovu/" + chosen));
  }
  // A board has one chip: without a file for the others it works.
  bool any = false;
  for (const Finding& finding : findings) {
    any = any || (finding.what == "firmware" && finding.level == Level::kOk);
  }
  for (Finding& finding : findings) {
    if (any && finding.what == "firmware" && finding.text.find(": no file") != std::string::npos) {
      finding.level = Level::kWarning;
    }
  }
}

void CheckAddress(Findings& findings) {
  constexpr char kFile[] = "/proc/device-tree/chosen/config/bt_addr";
  constexpr char kProperty[] = "ro.vendor.bluetooth.evb_bdaddr";
  const bool in_file = root_folder::Exists(kFile);
  const std::string text = in_file ? FirstLine(kFile) : GetProperty(kProperty, "");
  const std::string where = in_file ? kFile : std::string("property ") + kProperty;
  std::string colons = text;
  if (text.size() >= 12 && text.find(':') == std::string::npos) {
    for (size_t at = 2; at < 17; at += 3) colons.insert(at, ":");
  }
  const std::optional<Bytes> address = ParseAddress(colons.substr(0, 17));
  if (!address) {
    findings.push_back({"address", Level::kFault,
                        text.empty() ? "none" : where + ": \"" + text + "\" is no address",
                        "bthalctl prepare-root --address, or property " + std::string(kProperty)});
  } else if (*address == Bytes(6, 0x00) || *address == Bytes(6, 0xFF)) {
    findings.push_back(
        {"address", Level::kFault, text + " cannot be a device's", "set another one"});
  } else {
    findings.push_back({"address", Level::kOk, AddressText(*address) + " out of " + where, ""});
  }
}

void CheckKernelFiles(Findings& findings) {
  CheckUsable(findings, "coexistence", "/dev/wbrc", R_OK | W_OK, Level::kFault,
              "the service ends without it (report 151); \"bthalctl prepare-root\" makes one");
  const char* const awake = "without it the controller stays awake; nothing else changes";
  CheckUsable(findings, "low power", "/proc/bluetooth/sleep/lpm", W_OK, Level::kWarning, awake);
  CheckUsable(findings, "low power", "/proc/bluetooth/sleep/btwrite", W_OK, Level::kWarning, awake);
  CheckUsable(findings, "wake lock", "/sys/power/wake_lock", W_OK, Level::kWarning,
              "without it the machine may sleep during a bring-up");
  for (const char* buffer : {"/dev/logbuffer_tty16", "/dev/logbuffer_btlpm"}) {
    CheckUsable(findings, "log buffer", buffer, R_OK, Level::kWarning,
                "debug reports come without the kernel's lines");
  }
}

void CheckStorage(Findings& findings) {
  constexpr uint64_t kEnough = 16 << 20;  // some dumps of each kind
  for (const char* folder : {"/data/vendor/ssrdump/coredump", "/data/tombstones"}) {
    const std::string path = root_folder::Resolve(folder);
    struct statvfs room {};
    if (access(path.c_str(), W_OK) != 0 || statvfs(path.c_str(), &room) != 0) {
      findings.push_back({"crash files", Level::kWarning,
                          std::string(folder) + ": " + strerror(errno),
                          "a failure leaves no files there; make it writable"});
      continue;
    }
    const uint64_t bytes = static_cast<uint64_t>(room.f_bavail) * room.f_frsize;
    findings.push_back({"crash files", bytes < kEnough ? Level::kWarning : Level::kOk,
                        std::string(folder) + ", " + HumanBytes(bytes) + " free",
                        bytes < kEnough ? "make room" : ""});
  }
  const nlohmann::json crashes = CollectCrashes();
  if (crashes.empty()) {
    findings.push_back({"last crash", Level::kOk, "none", ""});
    return;
  }
  const std::string text = DescribeCrashes(nlohmann::json::array({crashes.back()}));
  findings.push_back({"last crash", Level::kWarning, text.substr(0, text.find('\n')),
                      "bthalctl crashes lists all of them"});
}

}  // namespace bthalctl
