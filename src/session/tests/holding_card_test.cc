#include "mirell/session/holding_card.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace mirell::session {
namespace {

struct Rgb {
  int r, g, b;
  friend bool operator==(const Rgb&, const Rgb&) = default;
};

std::ostream& operator<<(std::ostream& out, const Rgb& c) {
  return out << "(" << c.r << ", " << c.g << ", " << c.b << ")";
}

Rgb PixelAt(const HoldingCard& card, std::uint32_t x, std::uint32_t y) {
  const auto bgra = card.bgra();
  const std::size_t at = (static_cast<std::size_t>(y) * card.width() + x) * 4;
  return {bgra[at + 2], bgra[at + 1], bgra[at]};
}

// How many pixels of a row band [top, bottom) have exactly this colour.
std::size_t CountColour(const HoldingCard& card, std::uint32_t top, std::uint32_t bottom, Rgb colour) {
  std::size_t count = 0;
  for (std::uint32_t y = top; y < bottom; ++y) {
    for (std::uint32_t x = 0; x < card.width(); ++x) if (PixelAt(card, x, y) == colour) ++count;
  }
  return count;
}

TEST(HoldingCard, RenderOfZeroAndOneAreTheSamePicture) {
  HoldingCard card(640, 360, "Waiting to be let in");
  const auto zero = card.Render(0.0);
  const std::vector<std::uint8_t> first(zero.begin(), zero.end());
  const auto one = card.Render(1.0);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), one.begin(), one.end()));
  EXPECT_EQ(first.size(), 640u * 360 * 3 / 2);
  const auto half = card.Render(0.5);
  EXPECT_FALSE(std::equal(first.begin(), first.end(), half.begin(), half.end()));
}

TEST(HoldingCard, BackgroundAndBandCentreHaveTheirExactColours) {
  HoldingCard card(1280, 720, "Waiting to be let in");
  card.Render(0.25);  // The band's centre is at the middle column, c = 0.5.
  EXPECT_EQ(PixelAt(card, 640, 719), (Rgb{36, 31, 46}));
  EXPECT_EQ(PixelAt(card, 0, 719), (Rgb{20, 18, 26}));
  EXPECT_EQ(PixelAt(card, 1279, 0), (Rgb{20, 18, 26}));
  // A twelfth of the width from the centre the band has faded to mix 0.5.
  EXPECT_EQ(PixelAt(card, 640 + 1280 / 12, 719), (Rgb{28, 25, 36}));
}

TEST(HoldingCard, TopDotIsBrightestAtPhaseZero) {
  HoldingCard card(1280, 720, "Waiting to be let in");
  card.Render(0.0);
  // Dot 0: centre (640, 244 - 80), full brightness, radius 8 x 2 = 16.
  EXPECT_EQ(PixelAt(card, 640, 164), (Rgb{214, 207, 250}));
  EXPECT_EQ(PixelAt(card, 640 + 12, 164), (Rgb{214, 207, 250}));
  // Dot 6, at the bottom, is the dimmest: brightness (1 - 0.5)^3 = 0.125.
  EXPECT_EQ(PixelAt(card, 640, 324), (Rgb{69, 64, 85}));
  // The centre of the ring is background.
  EXPECT_EQ(PixelAt(card, 640, 244), (Rgb{20, 18, 26}));
}

TEST(HoldingCard, RowOfDotsIsEmptyAtZeroAndHasThreeAtThreeQuarters) {
  HoldingCard card(1280, 720, "Waiting to be let in");
  const Rgb violet{122, 92, 255};
  // The row stands at 720 / 11 + 374 = 439, one title line high.
  card.Render(0.0);
  EXPECT_EQ(CountColour(card, 439, 439 + 70, violet), 0u);
  card.Render(0.75);
  const std::size_t three = CountColour(card, 439, 439 + 70, violet);
  EXPECT_GT(three, 0u);
  card.Render(0.25);
  const std::size_t one = CountColour(card, 439, 439 + 70, violet);
  EXPECT_GT(one, 0u);
  EXPECT_NEAR(static_cast<double>(three) / static_cast<double>(one), 3.0, 0.5);
}

TEST(HoldingCard, TitleAndFooterAreDrawnInTheirBands) {
  HoldingCard card(1280, 720, "Waiting to be let in");
  card.Render(0.0);  // Pulse 0: the title is exactly (232, 230, 239).
  EXPECT_GT(CountColour(card, 374, 374 + 70, Rgb{232, 230, 239}), 500u);
  EXPECT_GT(CountColour(card, 547, 547 + 35, Rgb{185, 181, 200}), 200u);
  // Nothing of the footer's colour above it.
  EXPECT_EQ(CountColour(card, 0, 374, Rgb{185, 181, 200}), 0u);
}

TEST(HoldingCard, BaseDotRadiusIsThreeBelowHeight270) {
  EXPECT_EQ(HoldingCardBaseDotRadius(720), 8u);
  EXPECT_EQ(HoldingCardBaseDotRadius(270), 3u);
  EXPECT_EQ(HoldingCardBaseDotRadius(180), 3u);
  EXPECT_EQ(HoldingCardBaseDotRadius(90), 3u);
  // On the picture: at height 180 the brightest dot has radius 6; a pixel 5 from its centre is
  // inside it (it would not be with a base of 2).
  HoldingCard card(320, 180, "x");
  card.Render(0.0);
  const std::uint32_t dot_y = 61 - 20;
  EXPECT_EQ(PixelAt(card, 160, dot_y - 5), (Rgb{214, 207, 250}));
  EXPECT_NE(PixelAt(card, 160, dot_y - 8), (Rgb{214, 207, 250}));
}

}  // namespace
}  // namespace mirell::session
