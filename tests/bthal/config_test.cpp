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

// Writes every field to the file that its argument names, one "name=value" a line.
CHILD_CASE(ReadConfig) {
  const Config& config = *Config::GetInstance();
  std::string text = "fast=" + std::to_string(config.GetFastDownloadState());
  text += "\nsar=" + std::to_string(config.sar_back_off_high_resolution());
  text += "\ndelay=" + std::to_string(config.big_hammer_reg_on_delay_ms());
  text += "\nport=" + config.uart_port();
  text += "\ntype=" + std::to_string(config.userial_type());
  text += "\naccel=" + std::to_string(config.IsAcceleratedBtOnSupported());
  for (const char* name : kCopied) {
    text += std::string("\nprop ") + name + "=" + android::base::GetProperty(name, "");
  }
  test::WriteFile(arguments[0], text + "\n");
  return 0;
}

struct Reading {
  std::map<std::string, std::string> fields;
  std::string log;
};

Reading Read(const test::TempDir& root) {
  const std::string out = root / "fields";
  const test::ChildRun run = test::RunChild("ReadConfig", root.path(), {out});
  EXPECT_EQ(run.result.exit_code, 0) << run.output;
  Reading reading{{}, run.output};
  for (const std::string& line : test::SplitTrimmed(test::ReadFile(out), '\n')) {
    const size_t equals = line.find('=');
    if (equals != std::string::npos) {
      reading.fields[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  return reading;
}

class ConfigFiles : public testing::TestWithParam<test::Vector> {};

TEST_P(ConfigFiles, HaveTheirEffect) {
  const std::vector<std::string>& row = GetParam().fields;
  test::TempDir root;
  for (const auto& [path, field] : {std::pair{kBase, row[0]}, std::pair{kOverlay, row[1]}}) {
    if (const auto text = test::ParseText(field)) test::WriteFile(root.path() + path, *text);
  }
  if (row[2] != "-") test::WriteFile(root / "vendor/build.prop", row[2] + "\n");

  std::map<std::string, std::string> expected = {{"fast", "1"},    {"sar", "0"},
                                                 {"delay", "100"}, {"port", "/dev/ttySAC16"},
                                                 {"type", "1"},    {"accel", "1"}};
  for (const char* name : kCopied) expected[std::string("prop ") + name] = "";
  std::vector<std::string> lines;
  for (const std::string& part : test::SplitTrimmed(row[3], ';')) {
    const std::string text = *test::ParseText(part);
    if (text.rfind("log ", 0) == 0) {
      lines.push_back(text.substr(4));
    } else {
      expected[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    }
  }

  const Reading reading = Read(root);
  EXPECT_EQ(reading.fields, expected);
  for (const std::string& line : lines) EXPECT_THAT(reading.log, HasSubstr(line + "\n"));
}
INSTANTIATE_TEST_SUITE_P(Vectors, ConfigFiles, testing::ValuesIn(test::LoadVectors("config.txt")),
                         [](const auto& row) { return row.param.name; });

}  // namespace
