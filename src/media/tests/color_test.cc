#include "mirell/media/color.h"

#include <gtest/gtest.h>

#include <vector>

#include "mirell/base/error.h"

namespace mirell::media {
namespace {

struct Yuv {
  int y, u, v;
  friend bool operator==(const Yuv&, const Yuv&) = default;
};

std::ostream& operator<<(std::ostream& out, const Yuv& c) { return out << c.y << "," << c.u << "," << c.v; }

// Converts a 2x2 picture of one colour and returns its Y, U, V.
Yuv Convert(std::uint8_t b, std::uint8_t g, std::uint8_t r, std::uint8_t a = 255) {
  std::vector<std::uint8_t> bgra;
  for (int i = 0; i < 4; ++i) bgra.insert(bgra.end(), {b, g, r, a});
  std::vector<std::uint8_t> nv12(Nv12FrameSize(2, 2));
  BgraToNv12(bgra, 8, 2, 2, nv12);
  for (int i = 1; i < 4; ++i) EXPECT_EQ(nv12[static_cast<std::size_t>(i)], nv12[0]);
  return {nv12[0], nv12[4], nv12[5]};
}

TEST(Nv12FrameSize, MultipliesBeforeDividing) {
  EXPECT_EQ(Nv12FrameSize(1920, 1080), 3110400u);
  EXPECT_EQ(Nv12FrameSize(65535, 65535), 65535ull * 65535ull * 3 / 2);
}

TEST(BgraToNv12, ReferenceColours) {
  EXPECT_EQ(Convert(0, 0, 0), (Yuv{16, 128, 128}));
  EXPECT_EQ(Convert(255, 255, 255), (Yuv{235, 128, 128}));
  EXPECT_EQ(Convert(0, 0, 255), (Yuv{63, 102, 240}));   // Red
  EXPECT_EQ(Convert(255, 0, 0), (Yuv{32, 240, 118}));   // Blue
  EXPECT_EQ(Convert(0, 255, 0), (Yuv{173, 42, 26}));    // Green
}

TEST(BgraToNv12, AlphaIsIgnored) { EXPECT_EQ(Convert(10, 200, 90, 0), Convert(10, 200, 90, 255)); }

TEST(BgraToNv12, ChromaIsTheRoundedBlockAverage) {
  // Two black and two white pixels: means of 127.5 round up to 128 for every channel.
  const std::vector<std::uint8_t> bgra = {0, 0, 0, 0, 255, 255, 255, 0, 255, 255, 255, 0, 0, 0, 0, 0};
  std::vector<std::uint8_t> nv12(6);
  BgraToNv12(bgra, 8, 2, 2, nv12);
  EXPECT_EQ(nv12, (std::vector<std::uint8_t>{16, 235, 235, 16, 128, 128}));
}

TEST(BgraToNv12, StrideBeyondTheRowIsNeverRead) {
  const std::uint32_t width = 4, height = 2;
  const std::size_t stride = 4 * 4 + 12;
  std::vector<std::uint8_t> clean(stride * height, 0), dirty(stride * height, 0);
  for (std::size_t row = 0; row < height; ++row) {
    for (std::size_t i = 16; i < stride; ++i) dirty[row * stride + i] = 0xFF;
  }
  std::vector<std::uint8_t> a(Nv12FrameSize(width, height)), b(a.size());
  BgraToNv12(clean, stride, width, height, a);
  BgraToNv12(dirty, stride, width, height, b);
  EXPECT_EQ(a, b);
}

TEST(BgraToNv12, LargerBgraBufferIsAcceptedNv12MustBeExact) {
  std::vector<std::uint8_t> bgra(64, 0);
  std::vector<std::uint8_t> exact(6), larger(7);
  EXPECT_NO_THROW(BgraToNv12(bgra, 8, 2, 2, exact));
  try {
    BgraToNv12(bgra, 8, 2, 2, larger);
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("check failed: nv12.size() == Nv12FrameSize(width, height) - "
                                             "NV12 buffer is 7 bytes, need 6"),
              std::string::npos)
        << error.what();
  }
}

TEST(BgraToNv12, ChecksInOrder) {
  std::vector<std::uint8_t> bgra(64, 0), nv12(6);
  auto text = [&](std::size_t stride, std::uint32_t w, std::uint32_t h, std::size_t bgra_size) {
    try {
      BgraToNv12(std::span(bgra).first(bgra_size), stride, w, h, nv12);
    } catch (const Error& error) {
      const std::string what = error.what();
      return what.substr(what.find("check failed: "));
    }
    return std::string("no throw");
  };
  EXPECT_EQ(text(8, 3, 2, 64), "check failed: width % 2 == 0 && height % 2 == 0 - NV12 needs even dimensions, got 3x2");
  EXPECT_EQ(text(8, 2, 1, 64), "check failed: width % 2 == 0 && height % 2 == 0 - NV12 needs even dimensions, got 2x1");
  EXPECT_EQ(text(7, 2, 2, 64),
            "check failed: bgra_stride >= static_cast<std::size_t>(width) * 4 - BGRA stride 7 is shorter than 2 pixels");
  EXPECT_EQ(text(8, 2, 2, 15), "check failed: bgra.size() >= bgra_stride * height - BGRA buffer is 15 bytes, need 16");
}

TEST(BgraToNv12, HeightZeroReturnsAtOnce) {
  std::vector<std::uint8_t> nothing;
  EXPECT_NO_THROW(BgraToNv12({}, 8, 2, 0, nothing));
}

}  // namespace
}  // namespace mirell::media
