#include "tools/link/exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_link.h"
#include "tools/base/failure.h"
#include "tools/link/le_peer.h"
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

// A peer that asks and notifies before it answers.
TEST(LePeer, PeerThatIsAClientToo_IsRefusedAndStillGivesItsName) {
  FakeLink link;
  const auto from_peer = [&](const char* att) {
    const Bytes message = ParseHex(att);
    const auto size = static_cast<unsigned>(message.size());
    link.Arrive({PacketType::kAcl,
                 Writer().U16(0x2040).U16(size + 4).U16(size).U16(4).Append(message).Done()});
  };
  link.on_send = [&](const Packet& packet) {
    if (packet.type == PacketType::kCommand) {
      Packet done = Event("0E 04 01 00 00 00");
      done.bytes[3] = packet.bytes[0];
      done.bytes[4] = packet.bytes[1];
      link.Arrive(done);
      if (packet.bytes == ParseHex("0C 20 02 01 00")) {  // the scan begins
        link.Arrive(Event("3E 0C 02 01 00 00 01 02 03 04 05 06 00 C4"));
      } else if (packet.bytes[0] == 0x0D) {  // the connection
        link.Arrive(Event("3E 13 01 00 40 00 00 00 01 02 03 04 05 06 06 00 00 00 90 01 00"));
      } else if (packet.bytes[0] == 0x06) {  // its end
        link.Arrive(Event("05 04 00 40 00 16"));
      }
    } else if (packet.bytes.at(8) == 0x08) {  // the name is asked for
      from_peer("02 05 02");
      from_peer("1B 03 00 09");
      from_peer("01 10 01 00 0A");
      from_peer("09 06 03 00 41 42 43 44");
    }
  };
  Exchange exchange(link);
  EXPECT_EQ(LePeer(exchange, "06:05:04:03:02:01").ReadDeviceName(), "ABCD");
  const Packet refusal = {PacketType::kAcl, ParseHex("40 00 09 00 05 00 04 00 01 02 00 00 06")};
  EXPECT_THAT(link.sent, ::testing::Contains(refusal));
}

}  // namespace
}  // namespace bthalctl
