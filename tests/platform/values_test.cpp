// The value types, within one process.
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <unistd.h>

#include <array>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace android::hardware;  // NOLINT: what is tested
using android::sp;

TEST(HidlVec, Resize_KeepsWhatFits) {
  hidl_vec<uint8_t> bytes(1000);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0});
  const uint8_t* const before = bytes.data();
  bytes.resize(10);
  EXPECT_EQ(bytes.data(), before) << "shrinking bytes moved them";
  bytes.resize(20);
  EXPECT_EQ(bytes.size(), 20u);
  for (uint8_t i = 0; i < 10; ++i) EXPECT_EQ(bytes[i], i);
  bytes.resize(0);
  EXPECT_TRUE(bytes.empty());

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
  hidl_vec<uint8_t> moved = std::move(copy);
  EXPECT_TRUE(copy.empty());  // NOLINT: that is the point
  uint8_t* released = moved.releaseData();
  EXPECT_EQ(released[3], 4);
  delete[] released;
}

TEST(HidlVec, Conversions_KeepElements) {
  const std::vector<bool> flags = {true, false, true};
  const hidl_vec<bool> from_flags = flags;
  EXPECT_EQ(std::vector<bool>(from_flags), flags);
  const std::string text = "xyz";
  const hidl_vec<uint8_t> from_range(text.begin(), text.end());
  EXPECT_EQ(from_range.find('z'), 2u);
  EXPECT_FALSE(from_range.contains('a'));
}

TEST(HidlString, CopiesMovesAndCompares) {
  hidl_string a = "text";
  const hidl_string b = std::move(a);
  EXPECT_TRUE(a.empty());  // NOLINT: that is the point
  EXPECT_STREQ(a.c_str(), "");
  EXPECT_EQ(b, "text");
  EXPECT_NE(b, hidl_string("text", 3));
  EXPECT_LT(hidl_string("abc"), hidl_string("abd"));
  hidl_string view;
  view.setToExternal(b.c_str(), b.size());
  const hidl_string copy = std::move(view);  // what it does not own it cannot give away
  EXPECT_NE(static_cast<const void*>(copy.c_str()), static_cast<const void*>(b.c_str()));
  EXPECT_EQ(copy, b);
}

TEST(HidlHandle, Copy_DuplicatesDescriptors) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  native_handle_t* native = native_handle_create(1, 2);
  native->data[0] = ends[1];
  native->data[1] = 5;
  native->data[2] = 6;
  {
    hidl_handle owner;
    owner.setTo(native, true);
    const hidl_handle copy = owner;
    EXPECT_NE(copy->data[0], owner->data[0]);
    EXPECT_EQ(copy->data[2], 6);
    EXPECT_EQ(write(copy->data[0], "x", 1), 1);
  }
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 1);
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "a writing end is still open";
  close(ends[0]);
}

TEST(HidlText, Forms) {
  EXPECT_EQ(toString(hidl_vec<uint8_t>{1, 2, 3}), "[3]{1, 2, 3}");
  EXPECT_EQ(toString(hidl_vec<uint8_t>()), "[0]{}");
  EXPECT_EQ(toString(hidl_vec<hidl_string>{"a"}), "[1]{\"a\"}");
  const int32_t rows[2][3] = {{1, 2, 3}, {4, 5, 6}};
  const hidl_array<int32_t, 2, 3> matrix(rows);
  EXPECT_EQ(toString(matrix), "[2][3]{{1, 2, 3}, {4, 5, 6}}");
  EXPECT_EQ(toString(true), "true");
}

TEST(HidlArray, Converts) {
  const std::array<uint8_t, 3> source = {7, 8, 9};
  const hidl_array<uint8_t, 3> array(source);
  EXPECT_EQ(array[2], 9);
  EXPECT_TRUE((std::array<uint8_t, 3>(array) == source));
  EXPECT_EQ((hidl_array<int, 2, 5>::elementCount()), 10u);
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

}  // namespace
