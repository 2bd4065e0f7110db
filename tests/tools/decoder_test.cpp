#include "tools/hci/decoder.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "support/child_process.h"
#include "support/vectors.h"
#include "tools/wire/code_names.h"

namespace bthalctl {
namespace {

TEST(Decoder, Packets_InOneLine) {
  const std::map<std::string, PacketType> types = {{"cmd", PacketType::kCommand},
                                                   {"evt", PacketType::kEvent},
                                                   {"acl", PacketType::kAcl},
                                                   {"iso", PacketType::kIso}};
  for (const test::Vector& row : test::LoadVectors("decoder.txt")) {
    EXPECT_EQ(Describe({types.at(row.name), ParseHex(row.fields[0])}), row.fields[1]);
  }
}

// tshark prints its tables of names; what it names has a name here.
TEST(CodeNames, CoverWhatTsharkNames) {
  std::string output;
  ASSERT_EQ(test::Run({"sh", "-c", "tshark -G values 2>/dev/null"}, &output).exit_code, 0);
  const std::map<std::string, wire::CodeKind> tables = {
      {"bthci_cmd.opcode", wire::CodeKind::kCommand},
      {"bthci_evt.code", wire::CodeKind::kEvent},
      {"bthci_evt.le_meta_subevent", wire::CodeKind::kLeEvent},
      {"bthci_evt.status", wire::CodeKind::kStatus},
      {"btatt.opcode.method", wire::CodeKind::kAtt},
      {"btsmp.opcode", wire::CodeKind::kSmp},
      {"btl2cap.cmd_code", wire::CodeKind::kSignalling},
  };
  int named = 0;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> fields = test::SplitTrimmed(line, '\t');
    if (fields.size() != 4 || fields[0] != "V" || tables.count(fields[1]) == 0) continue;
    const auto code = static_cast<uint16_t>(std::stoul(fields[2], nullptr, 0));
    // Others' vendor commands and events.
    if (code >= 0xFC00 || (fields[1] == "bthci_evt.code" && code >= 0xFE)) continue;
    ++named;
    EXPECT_NE(wire::NameOf(tables.at(fields[1]), code), nullptr) << line;
  }
  EXPECT_GT(named, 500);
}

}  // namespace
}  // namespace bthalctl
