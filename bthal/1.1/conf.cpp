#define LOG_TAG "bthal.config"

#include "conf.h"

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <log/log.h>
#include <root_folder/root_folder.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace android::hardware::bluetooth::conf {
namespace {

constexpr char kBaseFile[] = "/vendor/etc/bluetooth/bt_vendor.conf";
constexpr char kOverlayFile[] = "/vendor/etc/bluetooth/bt_vendor_overlay.conf";
constexpr size_t kMaxLine = 255;
constexpr int32_t kUserialTty = 1;

// Leading digits only; 0 for anything else.
int32_t ToInteger(const char* value) { return static_cast<int32_t>(strtol(value, nullptr, 10)); }

bool IsOneOrTrue(const char* value) { return ToInteger(value) == 1 || strcmp(value, "true") == 0; }

bool is_user_debug_or_eng_build() {
  const std::string type = base::GetProperty("ro.build.type", "");
  ALOGI("%s: build_type : %s", __func__, type.c_str());
  return type == "userdebug" || type == "eng";
}

void StoreInProperty(const char* property, const char* value) {
  ALOGI("StoreConfigValue: set %s: %s", property, value);
  base::SetProperty(property, value);
}

std::string TrimBlanks(const char* value) {
  std::string text = value;
  text.erase(text.find_last_not_of(" \t") + 1);
  text.erase(0, text.find_first_not_of(" \t"));
  return text;
}

// The lines of a file without their ends, a longer one in pieces of kMaxLine characters.
std::vector<std::string> SplitLines(const std::string& content) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < content.size();) {
    const size_t end = std::min(content.find('\n', at), content.size());
    lines.push_back(content.substr(at, std::min(end - at, kMaxLine)));
    at += lines.back().size() + (at + lines.back().size() == end ? 1 : 0);
  }
  return lines;
}

// Whether a line has no control characters but tabs and carriage returns.
bool IsText(const std::string& line) {
  return std::none_of(line.begin(), line.end(), [](unsigned char c) {
    return std::iscntrl(c) != 0 && c != '\t' && c != '\r';
  });
}

}  // namespace

const Config* Config::GetInstance() {
  static const auto* instance = new Config;
  return instance;
}

Config::Config() {
  LoadConfig(kBaseFile);
  LoadConfig(kOverlayFile);
}

void Config::LoadConfig(const char* path) {
  ALOGI("Attempt to load conf from %s", path);
  std::string content;
  const base::unique_fd fd(root_folder::Open(path, O_RDONLY));
  if (fd.get() < 0 || !base::ReadFdToString(fd, &content)) {
    ALOGI("config file >%s< not found", path);
    return;
  }
  size_t not_text = 0;
  for (std::string& line : SplitLines(content)) {
    if (!IsText(line)) ++not_text;
    if (line[0] == '#') continue;
    char* rest = nullptr;
    const char* name = strtok_r(line.data(), " =\n\r\t", &rest);
    if (name == nullptr) continue;
    const char* value = strtok_r(nullptr, "=\n\r\t", &rest);
    if (value == nullptr) {
      ALOGW("vnd_load_conf: missing value for name: %s", name);
      continue;
    }
    StoreConfigValue(name, TrimBlanks(value).c_str());
  }
  if (not_text > 0) {
    ALOGW("vnd_load_conf: %s looks damaged: %zu lines have control characters", path, not_text);
  }
  if (userial_type_ != kUserialTty) uart_port_.clear();
}

void Config::StoreConfigValue(const char* name, const char* value) {
  const auto is = [name](const char* key) { return strcmp(name, key) == 0; };
  if (is("FastDownloadDisable")) {
    fast_download_disabled_ = IsOneOrTrue(value);
  } else if (is("BigHammerBtRegOnDelay")) {
    big_hammer_reg_on_delay_ms_ = ToInteger(value);
  } else if (is("UartPort")) {
    uart_port_ = value;
  } else if (is("UserialType")) {
    userial_type_ = ToInteger(value);
  } else if (is("SarBackOffHighResolution")) {
    // Only "true" switches it on; "1" does not.
    sar_back_off_high_resolution_ = strcmp(value, "true") == 0;
  } else if (is("BqrEventMaskValueUpdate")) {
    if (is_user_debug_or_eng_build()) {
      StoreInProperty("persist.bluetooth.bqr.event_mask", value);
    }
  } else if (is("BtA2dpOffloadCap")) {
    StoreInProperty("persist.bluetooth.a2dp_offload.cap", value);
  } else if (is("BtOpusEnabled")) {
    StoreInProperty("persist.bluetooth.opus.enabled", value);
  } else if (is("AccelBtDisable")) {
    accelerated_bt_disabled_ = IsOneOrTrue(value);
  }
}

bool Config::IsAcceleratedBtOnSupported() const {
  const std::string property =
      base::GetProperty("persist.bluetooth.disable.accelerate.bt.on", "false");
  ALOGI("%s: accel_bt_on_disable_prop: %s", __func__, property.c_str());
  return property == "false" && !accelerated_bt_disabled_;
}

}  // namespace android::hardware::bluetooth::conf
