// The waiting card a viewer sees until the person sharing lets them in: a dark card with a
// sweeping band, a spinner of twelve dots, the title, a row of 0 to 3 dots and a footer, animated
// by a phase that loops from 0 to 1.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace mirell::session {

// The spinner's base dot radius: height / 90, at least 3.
std::uint32_t HoldingCardBaseDotRadius(std::uint32_t height);

class HoldingCard {
 public:
  // Fails a check when the drawing surface cannot be made. Even width and height.
  HoldingCard(std::uint32_t width, std::uint32_t height, const std::string& title);
  ~HoldingCard();
  HoldingCard(const HoldingCard&) = delete;
  HoldingCard& operator=(const HoldingCard&) = delete;

  // Draws the card at `phase` (its fractional part counts) and returns the NV12 picture, valid
  // until the next Render.
  std::span<const std::uint8_t> Render(double phase);
  // The picture of the last Render as BGRA rows of width x 4 bytes.
  std::span<const std::uint8_t> bgra() const;

  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }

 private:
  struct Surface;

  std::uint32_t width_;
  std::uint32_t height_;
  std::string title_;
  std::unique_ptr<Surface> surface_;
};

}  // namespace mirell::session
