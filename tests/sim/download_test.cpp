#include "sim/firmware/download.h"

#include <gtest/gtest.h>

#include "sim/firmware/image.h"

namespace zvk {
namespace {

struct Record {
  uint16_t opcode;
  Bytes params;
};

std::vector<Record> Records(const Bytes& file) {
  std::vector<Record> records;
  for (size_t at = 0; at < file.size();) {
    const ByteView rest = ByteView(file).From(at);
    records.push_back({rest.U16(0), rest.Sub(3, rest[2]).Copy()});
    at += 3u + rest[2];
  }
  return records;
}

// Launch RAM's status after all records, and the first record's that was refused.
struct Outcome {
  uint8_t record = 0;
  uint8_t launch = 0xFF;
  std::string fault;
};

Outcome Load(const std::vector<Record>& records, uint8_t chip = 0xB5) {
  Download download(chip);
  Outcome outcome;
  for (const Record& record : records) {
    if (record.opcode == kLaunchRamOpcode) {
      outcome.launch = download.Launch(record.params);
    } else if (const uint8_t status = download.Write(record.params); outcome.record == 0) {
      outcome.record = status;
    }
  }
  outcome.fault = download.fault();
  return outcome;
}

ImageOptions Image(size_t size) {
  ImageOptions options;
  options.size = size;
  options.chip_id = 0xB5;
  return options;
}

TEST(FirmwareImage, AnySize_IsAcceptedByItsChip) {
  for (const size_t size : {1u, 239u, 240u, 241u, 5000u, 1000000u}) {
    const Outcome outcome = Load(Records(MakeFirmware(Image(size))));
    EXPECT_EQ(outcome.record, 0) << size;
    EXPECT_EQ(outcome.launch, 0) << size << ": " << outcome.fault;
  }
  ImageOptions options = Image(100);
  options.launch = false;
  EXPECT_NE(Records(MakeFirmware(options)).back().opcode, kLaunchRamOpcode);
}

TEST(FirmwareImage, Crc_IsTheStandards) {
  EXPECT_EQ(Crc32(0, ByteView(std::string("123456789"))), 0xCBF43926u);
}

TEST(FirmwareDownload, AnythingWrong_VoidsIt) {
  const std::vector<Record> good = Records(MakeFirmware(Image(2000)));
  struct Row {
    const char* what;
    std::vector<Record> records;
    uint8_t record;  // the status of the first record refused
    const char* fault;
  };
  std::vector<Row> rows;
  const auto add = [&](const char* what, uint8_t record, const char* fault, const auto& change) {
    rows.push_back({what, good, record, fault});
    change(rows.back().records);
  };
  add("no header", 0x12, "no image header", [](std::vector<Record>& r) { r.erase(r.begin()); });
  add("swapped", 0x12, "was next", [](std::vector<Record>& r) { std::swap(r[2], r[3]); });
  add("twice", 0x12, "was next", [](std::vector<Record>& r) { r.insert(r.begin() + 2, r[2]); });
  add("missing", 0x12, "was next", [](std::vector<Record>& r) { r.erase(r.begin() + 3); });
  add("last missing", 0, "are missing", [](std::vector<Record>& r) { r.erase(r.end() - 2); });
  add("too much", 0x12, "more data", [](std::vector<Record>& r) {
    r.insert(r.end() - 1, {kWriteRamOpcode, {0xD0, 0x07, 0x20, 0x00, 0x01}});
  });
  add("changed", 0, "checksum", [](std::vector<Record>& r) { r[4].params[50] ^= 1; });
  add("empty record", 0x12, "without data", [](std::vector<Record>& r) { r[1].params.resize(4); });
  add("other chip", 0x12, "another chip",
      [](std::vector<Record>& r) { r[0].params[4 + 10] = 0xAE; });
  add("launch elsewhere", 0, "unknown address",
      [](std::vector<Record>& r) { r.back().params[0] = 0; });
  for (const Row& row : rows) {
    const Outcome outcome = Load(row.records);
    EXPECT_EQ(outcome.record, row.record) << row.what;
    EXPECT_EQ(outcome.launch, 0x1F) << row.what;
    EXPECT_NE(outcome.fault.find(row.fault), std::string::npos)
        << row.what << ": " << outcome.fault;
  }
  ImageOptions options = Image(100);
  options.bad_checksum = true;
  EXPECT_EQ(Load(Records(MakeFirmware(options))).launch, 0x1F);
}

}  // namespace
}  // namespace zvk
