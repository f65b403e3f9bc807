#include "mirell/media/nal.h"

#include <gtest/gtest.h>

namespace mirell::media {
namespace {

Bytes B(std::initializer_list<int> values) {
  Bytes bytes;
  for (int v : values) bytes.push_back(static_cast<std::uint8_t>(v));
  return bytes;
}

std::vector<Bytes> Split(const Bytes& data) {
  std::vector<Bytes> result;
  for (const ByteSpan nal : SplitAnnexB(data)) result.emplace_back(nal.begin(), nal.end());
  return result;
}

TEST(FindStartCode, ThreeAndFourByteCodes) {
  std::int64_t start = 0;
  EXPECT_EQ(FindStartCode(B({0, 0, 1, 0x67}), 0, start), 3);
  EXPECT_EQ(start, 0);
  EXPECT_EQ(FindStartCode(B({0, 0, 0, 1, 0x67}), 0, start), 4);
  EXPECT_EQ(start, 0);
  EXPECT_EQ(FindStartCode(B({9, 0, 0, 0, 1}), 0, start), 5);
  EXPECT_EQ(start, 1);
}

TEST(FindStartCode, NoneFound) {
  std::int64_t start = 0;
  EXPECT_EQ(FindStartCode(B({0, 0}), 0, start), -1);
  EXPECT_EQ(start, -1);
  EXPECT_EQ(FindStartCode(B({0, 0, 2, 0, 0}), 0, start), -1);
  EXPECT_EQ(FindStartCode(B({0, 0, 1}), 1, start), -1);
  EXPECT_EQ(FindStartCode(B({}), 0, start), -1);
}

TEST(SplitAnnexB, MixedStartCodesAndTrailingZeros) {
  const Bytes data = B({7, 7, 0, 0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 3, 0, 0, 0, 1, 0x65, 4, 0, 0});
  const auto nals = Split(data);
  ASSERT_EQ(nals.size(), 3u);
  EXPECT_EQ(nals[0], B({0x67, 1, 2}));
  // The 4-byte code's leading zero is not taken for part of the NAL before it.
  EXPECT_EQ(nals[1], B({0x68, 3}));
  EXPECT_EQ(nals[2], B({0x65, 4}));
}

TEST(SplitAnnexB, AllZeroNalYieldsNothing) {
  EXPECT_EQ(Split(B({0, 0, 1, 0x67, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0x68})),
            (std::vector<Bytes>{B({0x67}), B({0x68})}));
  EXPECT_TRUE(Split(B({1, 2, 3})).empty());
  EXPECT_TRUE(Split(B({0, 0, 1})).empty());
}

TEST(FirstNalIs, LooksAtTheFirstNalOnly) {
  EXPECT_TRUE(FirstNalIs(B({0, 0, 0, 1, 0x67, 0, 0, 1, 0x65}), 7));
  EXPECT_FALSE(FirstNalIs(B({0, 0, 0, 1, 0x67, 0, 0, 1, 0x65}), 5));
  EXPECT_FALSE(FirstNalIs(B({0, 0, 1}), 7)) << "the start code ends the data";
  EXPECT_FALSE(FirstNalIs(B({0x67}), 7));
}

TEST(ContainsIdrNal, AnyNalOfTypeFive) {
  EXPECT_TRUE(ContainsIdrNal(B({0, 0, 1, 0x67, 0, 0, 1, 0x25})));
  EXPECT_FALSE(ContainsIdrNal(B({0, 0, 1, 0x67, 0, 0, 1, 0x41})));
}

TEST(StripEmulationPrevention, DropsThreeAfterTwoZeros) {
  EXPECT_EQ(StripEmulationPrevention(B({0x67, 0, 0, 3, 1, 0, 0, 3, 0, 3})), B({0x67, 0, 0, 1, 0, 0, 0, 3}));
  EXPECT_EQ(StripEmulationPrevention(B({0, 3, 0, 0, 0, 3})), B({0, 3, 0, 0, 0}));
}

TEST(AppendNal, FourByteStartCode) {
  Bytes out = B({9});
  AppendNal(out, B({0x68, 1}));
  EXPECT_EQ(out, B({9, 0, 0, 0, 1, 0x68, 1}));
}

TEST(IsKeyNal, IdrSpsPps) {
  EXPECT_TRUE(IsKeyNal(0x65));
  EXPECT_TRUE(IsKeyNal(0x67));
  EXPECT_TRUE(IsKeyNal(0x68));
  EXPECT_FALSE(IsKeyNal(0x41));
  EXPECT_FALSE(IsKeyNal(0x06));
}

}  // namespace
}  // namespace mirell::media
