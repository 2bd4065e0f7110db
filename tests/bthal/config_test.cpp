#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "bthal/child_case.h"
#include "conf.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::conf::Config;
using testing::HasSubstr;

constexpr char kBase[] = "/vendor/etc/bluetooth/bt_vendor.conf";
constexpr char kOverlay[] = "/vendor/etc/bluetooth/bt_vendor_overlay.conf";
constexpr const char* kCopied[] = {"persist.bluetooth.bqr.event_mask",
                                   "persist.bluetooth.a2dp_offload.cap",
                                   "persist.bluetooth.opus.enabled"};

// Prints every field, one "name=value" a line.
CHILD_CASE(ReadConfig) {
  const Config& config = *Config::GetInstance();
  std::string text = "\nfast=" + std::to_string(config.GetFastDownloadState());
  text += "\nsar=" + std::to_string(config.sar_back_off_high_resolution());
  text += "\ndelay=" + std::to_string(config.big_hammer_reg_on_delay_ms());
  text += "\nport=" + config.uart_port();
  text += "\ntype=" + std::to_string(config.userial_type());
  text += "\naccel=" + std::to_string(config.IsAcceleratedBtOnSupported());
  for (const char* name : kCopied) {
    text += std::string("\nprop ") + name + "=" + android::base::GetProperty(name, "");
  }
  puts(text.c_str());
  return 0;
}

TEST(ConfigFiles, HaveTheirEffect) {
  const std::vector<test::Vector> vectors = test::LoadVectors("config.txt");
  std::vector<test::TempDir> roots(vectors.size());
  const auto start = [&](size_t i) {
    const std::vector<std::string>& row = vectors[i].fields;
    for (const auto& [path, field] : {std::pair{kBase, row[0]}, std::pair{kOverlay, row[1]}}) {
      if (const auto text = test::ParseText(field)) test::WriteFile(roots[i].path() + path, *text);
    }
    if (row[2] != "-") test::WriteFile(roots[i] / "vendor/build.prop", row[2] + "\n");
    return test::StartChild("ReadConfig", roots[i].path());
  };
  test::RunSideBySide(vectors.size(), start, [&](size_t i, const test::ChildRun& run) {
    SCOPED_TRACE(vectors[i].name);
    EXPECT_EQ(run.result.exit_code, 0) << run.output;
    std::map<std::string, std::string> expected = {{"fast", "1"},    {"sar", "0"},
                                                   {"delay", "100"}, {"port", "/dev/ttySAC16"},
                                                   {"type", "1"},    {"accel", "1"}};
    for (const char* name : kCopied) expected[std::string("prop ") + name] = "";
    for (const std::string& part : test::SplitTrimmed(vectors[i].fields[3], ';')) {
      const std::string text = *test::ParseText(part);
      if (text.rfind("log ", 0) == 0) {
        EXPECT_THAT(run.output, HasSubstr(text.substr(4) + "\n"));
      } else {
        expected[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
      }
    }
    for (const auto& [name, value] : expected) {
      EXPECT_THAT(run.output, HasSubstr("\n" + name + "=" + value + "\n"));
    }
  });
}

}  // namespace
