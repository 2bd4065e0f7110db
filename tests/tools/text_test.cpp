// What users write: bytes in hex, addresses, commands.
#include <gtest/gtest.h>

#include "tools/base/failure.h"
#include "tools/hci/names.h"
#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

TEST(Hex, AllFormsAreTakenAndMistakesAreNamedByTheirPlace) {
  for (const char* text : {"01 ab FF", "01abff", "01:AB:ff", "0x01,0xab,0xFF", " 01  ABff "}) {
    EXPECT_EQ(HexText(ParseHex(text)), "01 AB FF") << text;
  }
  const struct {
    const char* text;
    const char* place;
  } rows[] = {{"0G", "character 1"}, {"01 2", "character 4"}, {"0x", "nothing after 0x"}};
  for (const auto& row : rows) {
    try {
      ParseHex(row.text);
      ADD_FAILURE() << row.text << " was taken";
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.code(), ExitCode::kUsage);
      EXPECT_NE(std::string(failure.what()).find(row.place), std::string::npos) << failure.what();
    }
  }
}

TEST(Names, Opcodes_ByNumberAndByName) {
  for (const char* text : {"0x0C03", "0xc03", "Reset", "RESET"}) {
    EXPECT_EQ(ParseOpcode(text), 0x0C03) << text;
  }
  EXPECT_EQ(ParseOpcode("le-set-scan-enable"), 0x200C);
  for (const char* text : {"", "0x", "0x0", "0x10000", "0x0C03x", "3075", "res"}) {
    EXPECT_FALSE(ParseOpcode(text)) << text;
  }
}

TEST(Address, MostSignificantByteFirst) {
  const Bytes on_air = {0x04, 0x00, 0xAD, 0x4B, 0x56, 0x5A};
  EXPECT_EQ(AddressText(on_air), "5A:56:4B:AD:00:04");
  EXPECT_EQ(ParseAddress("5a:56:4B:AD:00:04"), on_air);
  for (const char* text : {"5A:56:4B:AD:00", "5A:56:4B:AD:00:0G", "5A-56-4B-AD-00-04"}) {
    EXPECT_FALSE(ParseAddress(text)) << text;
  }
}

}  // namespace
}  // namespace bthalctl
