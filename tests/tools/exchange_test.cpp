#include "tools/link/exchange.h"

#include <gtest/gtest.h>

#include "fake_link.h"
#include "tools/base/failure.h"
#include "tools/link/transfer.h"

namespace bthalctl {
namespace {

Packet Event(const char* hex) { return {PacketType::kEvent, ParseHex(hex)}; }

TEST(Exchange, Answers_OfEachForm) {
  const struct {
    const char* event;
    std::optional<uint8_t> status;
  } rows[] = {
      {"0E 04 01 03 0C 0C", 0x0C},   {"0F 04 3A 01 03 0C", 0x3A},  // Command Status
      {"19 03 03 0C 00", 0x00},                                    // looped back
      {"0E 03 01 03 0C", 0xFF},                                    // without a status: a failure
      {"0E 02 01 03", std::nullopt}, {"0E 03 01 00 00", std::nullopt},  // only credits
      {"10 01 00", std::nullopt},
  };
  for (const auto& row : rows) {
    const std::optional<CommandAnswer> answer = AnswerIn(Event(row.event));
    EXPECT_EQ(answer.has_value(), row.status.has_value()) << row.event;
    if (answer && row.status) {
      EXPECT_EQ(answer->status, *row.status) << row.event;
    }
  }
}

// A controller that loops data back, with faults.
class Looper {
 public:
  explicit Looper(FakeLink& link) {
    link.on_send = [this, &link](const Packet& packet) {
      ++in_flight_;
      Packet back = packet;
      ++count_;
      if (count_ == alter_) back.bytes.back() ^= 1;
      if (count_ != lose_) link.Arrive(back);
      if (count_ == repeat_) link.Arrive(back);
      if (in_flight_ == 4) {
        link.Arrive(Event("13 05 01 01 00 04 00"));
        in_flight_ = 0;
      }
    };
  }
  int alter_ = 0;
  int lose_ = 0;
  int repeat_ = 0;

 private:
  int in_flight_ = 0;
  int count_ = 0;
};

TEST(Transfer, LostAlteredOrRepeatedPacket_Fails) {
  TransferOptions options;
  options.bytes = 10'000;
  for (int Looper::*fault : {&Looper::alter_, &Looper::lose_, &Looper::repeat_}) {
    FakeLink link;
    Looper looper(link);
    looper.*fault = 7;
    Exchange exchange(link);
    const auto nothing = [](uint64_t) {};
    EXPECT_THROW(Transfer(exchange, {{PacketType::kAcl, 1, 100, 4, true}}, options, nothing),
                 Failure);
  }
}

}  // namespace
}  // namespace bthalctl
