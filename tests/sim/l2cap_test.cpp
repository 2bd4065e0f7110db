#include "sim/radio/l2cap.h"

#include <gtest/gtest.h>

namespace zvk {
namespace {

using Frame = std::pair<uint16_t, Bytes>;
using Fragment = std::pair<bool, Bytes>;

TEST(L2cap, Fragments_MakeTheFrameHoweverItIsCut) {
  const Bytes frame = {0x05, 0x00, 0x04, 0x00, 1, 2, 3, 4, 5};
  for (size_t size = 1; size <= frame.size(); ++size) {
    std::vector<Frame> frames;
    L2cap l2cap([&](uint16_t channel, ByteView p) { frames.emplace_back(channel, p.Copy()); },
                [](bool, ByteView) {});
    for (size_t at = 0; at < frame.size(); at += size) {
      l2cap.OnFragment(at == 0, ByteView(frame).Sub(at, size));
    }
    EXPECT_EQ(frames, (std::vector<Frame>{{4, {1, 2, 3, 4, 5}}})) << size;
  }
}

TEST(L2cap, FragmentsThatFitNowhere_AreDroppedAndTheNextFrameCounts) {
  std::vector<Frame> frames;
  L2cap l2cap([&](uint16_t channel, ByteView p) { frames.emplace_back(channel, p.Copy()); },
              [](bool, ByteView) {});
  const Bytes whole = {0x01, 0x00, 0x06, 0x00, 0x99};
  l2cap.OnFragment(false, whole);                               // without a beginning
  l2cap.OnFragment(true, Bytes{0x01, 0x00, 0x06, 0x00, 1, 2});  // longer than announced
  l2cap.OnFragment(true, Bytes{0x09, 0x00, 0x06, 0x00, 1});     // never completed
  EXPECT_TRUE(frames.empty());
  l2cap.OnFragment(true, whole);
  EXPECT_EQ(frames, (std::vector<Frame>{{6, {0x99}}}));
}

TEST(L2cap, LongFrame_IsCutIntoFragments) {
  std::vector<Fragment> sent;
  L2cap l2cap([](uint16_t, ByteView) {},
              [&](bool first, ByteView p) { sent.emplace_back(first, p.Copy()); });
  l2cap.Send(4, Bytes{1, 2, 3, 4, 5}, 4);
  EXPECT_EQ(sent, (std::vector<Fragment>{
                      {true, {0x05, 0x00, 0x04, 0x00}}, {false, {1, 2, 3, 4}}, {false, {5}}}));
}

}  // namespace
}  // namespace zvk
