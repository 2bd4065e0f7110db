#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "tools/wire/code_names.h"
#include "tools/wire/describe.h"
#include "tools/wire/fields.h"

namespace wire {
namespace {

std::string OutputOf(const std::string& command) {
  std::string output;
  EXPECT_EQ(test::Run({"sh", "-c", command + " 2>/dev/null"}, &output).exit_code, 0) << output;
  return output;
}

TEST(Decoder, Packets_InOneLine) {
  const std::map<std::string, PacketType> types = {{"cmd", PacketType::kCommand},
                                                   {"evt", PacketType::kEvent},
                                                   {"acl", PacketType::kAcl},
                                                   {"iso", PacketType::kIso}};
  for (const test::Vector& row : test::LoadVectors("decoder.txt")) {
    EXPECT_EQ(Describe({types.at(row.name), test::ParseHex(row.fields[0])}), row.fields[1]);
  }
}

// Whatever the air brings: nothing is read that is not there (the sanitizers tell), and each line
// stays a line.
TEST(Decoder, AnyBytes_GiveOneLine) {
  std::mt19937 random(5);
  const auto any = [&](unsigned most) { return static_cast<uint8_t>(random() % (most + 1)); };
  const CodeRows commands = CommandRows();
  for (int i = 0; i < 20000; ++i) {
    const auto type = static_cast<PacketType>(1 + i % 5);
    const unsigned size = i % 3 == 0 ? any(255) : any(20);
    Writer packet;
    if (type == PacketType::kEvent) {
      packet.U8(i % 2 == 0 ? 0x3E : any(255)).U8(size);
    } else if (type == PacketType::kCommand) {
      packet.U16(commands.begin()[random() % (commands.end() - commands.begin())].code).U8(size);
    } else {
      packet.U16(random() % 0x10000).Little(size, type == PacketType::kSco ? 1 : 2);
    }
    for (unsigned at = 0; at < size; ++at) packet.U8(any(at < 8 ? 48 : 255));
    const std::string line = Describe({type, packet.Done()});
    EXPECT_TRUE(std::none_of(line.begin(), line.end(), [](char c) { return c >= 0 && c < ' '; }))
        << line;
  }
}

// The words of a name, as both write them: "LE Set Scan Enable" is {enable, scan, set}.
std::set<std::string> WordsOf(const std::string& name) {
  static const std::map<std::string, std::string> kSynonyms = {{"master", "central"},
                                                               {"slave", "peripheral"},
                                                               {"white", "accept"},
                                                               {"num", "number"},
                                                               {"csb", "connectionless"},
                                                               {"info", "information"},
                                                               {"disconnect", "disconnection"}};
  std::set<std::string> words;
  std::string word;
  for (const char c : name + " ") {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else if (!word.empty()) {
      const auto synonym = kSynonyms.find(word);
      words.insert(synonym == kSynonyms.end() ? word : synonym->second);
      word.clear();
    }
  }
  return words;
}

// The share of words that two names have in common.
double Likeness(const std::set<std::string>& one, const std::set<std::string>& other) {
  const auto common = static_cast<double>(std::count_if(
      one.begin(), one.end(), [&](const std::string& word) { return other.count(word) > 0; }));
  return common / (static_cast<double>(one.size() + other.size()) - common);
}

// tshark prints its tables of names. What it names has a name here, and no other row of ours is
// more like it than that one.
TEST(CodeNames, AreThoseOfTsharkButForTheirWording) {
  const std::map<std::string, CodeKind> tables = {
      {"bthci_cmd.opcode", CodeKind::kCommand},
      {"bthci_evt.code", CodeKind::kEvent},
      {"bthci_evt.le_meta_subevent", CodeKind::kLeEvent},
      {"bthci_evt.status", CodeKind::kStatus},
      {"btatt.opcode.method", CodeKind::kAtt},
      {"btatt.error_code", CodeKind::kAttError},
      {"btsmp.opcode", CodeKind::kSmp},
      {"btl2cap.cmd_code", CodeKind::kSignalling},
  };
  std::map<CodeKind, std::map<uint16_t, std::set<std::string>>> words;
  for (const auto& [field, kind] : tables) {
    for (const CodeRow& row : RowsOf(kind)) words[kind][row.code] = WordsOf(row.name);
  }
  int named = 0;
  std::istringstream lines(OutputOf("tshark -G values"));
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> fields = test::SplitTrimmed(line, '\t');
    if (fields.size() != 4 || fields[0] != "V" || tables.count(fields[1]) == 0) continue;
    const auto code = static_cast<uint16_t>(std::stoul(fields[2], nullptr, 0));
    // Others' vendor commands and events, and applications' errors.
    if (fields[1] == "bthci_evt.status" && code == 0) continue;  // "Pending", of Command Status
    if (fields[1] == "btatt.error_code" && code >= 0x80 && code < 0xFC) continue;
    if (code >= 0xFC00 || (fields[1] == "bthci_evt.code" && code >= 0xFE)) continue;
    ++named;
    const auto& rows = words.at(tables.at(fields[1]));
    ASSERT_EQ(rows.count(code), 1u) << line;
    const std::set<std::string> theirs = WordsOf(fields[3]);
    const double likeness = Likeness(rows.at(code), theirs);
    for (const auto& [other, ours] : rows) {
      EXPECT_LE(Likeness(ours, theirs), likeness)
          << line << ": more like it is " << HexCode(other, 4);
    }
  }
  EXPECT_GT(named, 500);
}

// One packet of each row, as long as its fields are.
class Corpus {
 public:
  explicit Corpus(const std::string& path) : file_(path, std::ios::binary) {
    file_.write("btsnoop\0\0\0\0\1\0\0\3\xEA", 16);
  }
  void Add(const std::string& name, PacketType type, const Bytes& head, const char* fields) {
    // All bytes are 1: a list has one item, a mask one bit.
    Bytes parameters;
    while (!DescribeFields(fields, parameters).whole && parameters.size() < 255) {
      parameters.push_back(1);
    }
    Bytes packet = {static_cast<uint8_t>(type)};
    packet.insert(packet.end(), head.begin(), head.end());
    packet.insert(packet.end(), parameters.begin(), parameters.end());
    const size_t length_at = type == PacketType::kCommand ? 3 : 2;
    packet[length_at] = static_cast<uint8_t>(packet.size() - length_at - 1);
    for (int copy = 0; copy < 2; ++copy) Big(packet.size(), 4);
    Big(type == PacketType::kCommand ? 2 : 3, 4);
    Big(0, 12);
    file_.write(reinterpret_cast<const char*>(packet.data()),
                static_cast<std::streamsize>(packet.size()));
    names.push_back(name);
  }
  void Close() { file_.close(); }

  std::vector<std::string> names;

 private:
  void Big(uint64_t value, unsigned width) {
    while (width-- > 0) file_.put(static_cast<char>(width < 8 ? value >> 8 * width : 0));
  }

  std::ofstream file_;
};

// tshark finds in each packet what its fields say, neither less nor, in commands, more.
TEST(FieldsOfRows, AreAsLongAsTsharkReadsThem) {
  const test::TempDir folder;
  Corpus corpus(folder / "corpus");
  for (const CodeRow& row : CommandRows()) {
    if (row.code == 0 || row.code >= 0xFC00) continue;
    const Bytes opcode = Writer().U16(row.code).Done();
    corpus.Add(row.name, PacketType::kCommand, {opcode[0], opcode[1], 0}, row.fields);
    if (*row.returns != 0) {
      corpus.Add("answer to " + std::string(row.name), PacketType::kEvent,
                 {0x0E, 0, 1, opcode[0], opcode[1], 0}, row.returns);
    }
  }
  for (const CodeRow& row : EventRows()) {
    if (row.code == 0xFF || row.code == 0x3E || row.code == 0x0E || row.code == 0x0F) continue;
    corpus.Add(row.name, PacketType::kEvent, {static_cast<uint8_t>(row.code), 0}, row.fields);
  }
  for (const CodeRow& row : LeEventRows()) {
    corpus.Add(row.name, PacketType::kEvent, {0x3E, 0, static_cast<uint8_t>(row.code)}, row.fields);
  }
  corpus.Close();
  std::istringstream lines(OutputOf("tshark -n -r " + (folder / "corpus") +
                                    " -T fields -e frame.number -e _ws.expert.message"));
  std::set<std::string> refused;
  size_t unknown = 0, read = 0;
  for (std::string line; std::getline(lines, line); ++read) {
    const std::vector<std::string> fields = test::SplitTrimmed(line, '\t');
    const bool is_unknown = line.find("Unknown ") != std::string::npos;
    unknown += is_unknown ? 1 : 0;
    if (fields.size() > 1 && !fields[1].empty() && !is_unknown) {
      refused.insert(corpus.names.at(std::stoul(fields[0]) - 1));
    }
  }
  EXPECT_EQ(read, corpus.names.size());
  EXPECT_LT(unknown, 30u) << "of later versions than tshark's";
  const std::set<std::string> expected = {
      // Their length goes by what they say, which cannot be 1 everywhere.
      "Accept Physical Link", "Create Physical Link", "Set Event Filter", "Write Remote AMP Assoc",
      "answer to Get MWS Transport Layer Configuration", "answer to Read Local AMP Assoc",
      // Advertising data that are no such.
      "LE Advertising Report", "LE Extended Advertising Report", "LE Set Advertising Data",
      "LE Set Extended Advertising Data", "LE Set Extended Scan Response Data",
      "LE Set Periodic Advertising Data", "LE Set Scan Response Data",
      // tshark wants to know the connection; takes the event for a command; reads a handle of one
      // byte, a byte between mode and offset, no mode, and the accuracy of a clock beyond its end.
      "Connection Packet Type Changed", "Loopback Command", "Flow Spec Modify", "Truncated Page",
      "Write Page Scan Mode", "answer to Read Clock"};
  EXPECT_EQ(refused, expected);
}

}  // namespace
}  // namespace wire
