// The value types, within one process.
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <unistd.h>

#include <array>
#include <numeric>
#include <string>
#include <vector>

#include "rpc/connection.h"

namespace {

using namespace android::hardware;  // NOLINT: what is tested

TEST(HidlVec, Resize_KeepsWhatFits) {
  hidl_vec<uint8_t> bytes(1000);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0});
  bytes.resize(10);
  bytes.resize(20);
  EXPECT_EQ(bytes.size(), 20u);
  for (uint8_t i = 0; i < 10; ++i) EXPECT_EQ(bytes[i], i);
  hidl_vec<hidl_string> names = {"a", "bb", "ccc"};
  names.resize(2);
  names.resize(4);
  EXPECT_EQ(names, (hidl_vec<hidl_string>{"a", "bb", "", ""}));
}

TEST(HidlVec, External_IsNotOwnedUntilResizedOrCopied) {
  uint8_t storage[4] = {1, 2, 3, 4};
  hidl_vec<uint8_t> view;
  view.setToExternal(storage, 4);
  hidl_vec<uint8_t> copy = view;
  view[0] = 9;
  EXPECT_EQ(storage[0], 9);
  EXPECT_EQ(copy[0], 1);
  view.resize(2);
  view[1] = 8;
  EXPECT_EQ(storage[1], 2) << "a resized view still writes to what it does not own";
  const hidl_vec<uint8_t> moved = std::move(copy);
  EXPECT_TRUE(copy.empty());  // NOLINT: that is the point
  EXPECT_EQ(moved[3], 4);
}

TEST(HidlString, CopiesMovesAndCompares) {
  hidl_string a = "text";
  const hidl_string b = std::move(a);
  EXPECT_STREQ(a.c_str(), "");  // NOLINT: that is the point
  EXPECT_NE(b, hidl_string("text", 3));
  hidl_string view;
  view.setToExternal(b.c_str(), b.size());
  const hidl_string copy = std::move(view);  // what it does not own it cannot give away
  EXPECT_NE(static_cast<const void*>(copy.c_str()), static_cast<const void*>(b.c_str()));
  EXPECT_EQ(copy, b);
}

TEST(HidlText, Forms) {
  EXPECT_EQ(toString(hidl_vec<uint8_t>{1, 2, 3}), "[3]{1, 2, 3}");
  EXPECT_EQ(toString(hidl_vec<uint8_t>()), "[0]{}");
  EXPECT_EQ(toString(hidl_vec<hidl_string>{"a"}), "[1]{\"a\"}");
  EXPECT_EQ(toString(hidl_array<uint8_t, 3>(std::array<uint8_t, 3>{7, 8, 9})), "[3]{7, 8, 9}");
  EXPECT_EQ(toString(true), "true");
}

TEST(HidlReturn, FailedCall_TellsAndDoesNotGiveItsValue) {
  const Return<int32_t> failed = Status::fromStatusT(android::DEAD_OBJECT);
  EXPECT_FALSE(failed.isOk());
  EXPECT_TRUE(failed.isDeadObject());
  EXPECT_NE(failed.description().find("DEAD_OBJECT"), std::string::npos);
  EXPECT_DEATH((void)static_cast<int32_t>(failed), "value of a failed call");
  Return<int32_t> ok = 5;
  EXPECT_EQ(ok.withDefault(1), 5);
}

// The other tests shorten it.
TEST(Connection, TimeOfAClientsAnswer_IsTenSecondsUnlessATestShortensIt) {
  EXPECT_EQ(bthal::rpc::client_answer_time, std::chrono::seconds(10));
}

}  // namespace
