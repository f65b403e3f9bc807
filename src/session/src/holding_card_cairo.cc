// Linux: the card drawn with Cairo on an ARGB32 image surface (BGRA in memory on little-endian
// machines) and Pango for the text, in DejaVu Sans.
#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/media/color.h"
#include "mirell/session/holding_card.h"

namespace mirell::session {
namespace {

constexpr const char* kFace = "DejaVu Sans";
constexpr const char* kFooter = "mirell  -  the person sharing has been asked";

struct Rgb {
  int r, g, b;
};

constexpr Rgb kBackground{20, 18, 26};
constexpr Rgb kBand{36, 31, 46};
constexpr Rgb kDotDim{48, 43, 61};
constexpr Rgb kDotBright{214, 207, 250};
constexpr Rgb kTitle{232, 230, 239};
constexpr Rgb kTitlePulse{214, 207, 250};
constexpr Rgb kEllipsis{122, 92, 255};
constexpr Rgb kFooterColour{185, 181, 200};

int MixChannel(int first, int second, double amount) {
  return static_cast<int>((second - first) * amount + first + 0.5);
}

Rgb Mix(Rgb first, Rgb second, double amount) {
  return {MixChannel(first.r, second.r, amount), MixChannel(first.g, second.g, amount),
          MixChannel(first.b, second.b, amount)};
}

void SetColour(cairo_t* cairo, Rgb colour) {
  cairo_set_source_rgb(cairo, colour.r / 255.0, colour.g / 255.0, colour.b / 255.0);
}

double Fraction(double value) { return value - std::floor(value); }

}  // namespace

std::uint32_t HoldingCardBaseDotRadius(std::uint32_t height) { return std::max(height / 90, 3u); }

struct HoldingCard::Surface {
  cairo_surface_t* surface = nullptr;
  cairo_t* cairo = nullptr;
  PangoLayout* layout = nullptr;
  PangoFontDescription* title_font = nullptr;
  PangoFontDescription* footer_font = nullptr;
  std::vector<std::uint8_t> nv12;

  ~Surface() {
    if (footer_font != nullptr) pango_font_description_free(footer_font);
    if (title_font != nullptr) pango_font_description_free(title_font);
    if (layout != nullptr) g_object_unref(layout);
    if (cairo != nullptr) cairo_destroy(cairo);
    if (surface != nullptr) cairo_surface_destroy(surface);
  }
};

namespace {

PangoFontDescription* MakeFont(std::uint32_t pixel_height, PangoWeight weight) {
  PangoFontDescription* font = pango_font_description_new();
  pango_font_description_set_family(font, kFace);
  pango_font_description_set_weight(font, weight);
  pango_font_description_set_absolute_size(font, static_cast<double>(pixel_height) * PANGO_SCALE);
  return font;
}

// Single-line text centred across the width, its top at `y`.
void DrawCentredText(cairo_t* cairo, PangoLayout* layout, const PangoFontDescription* font,
                     const std::string& text, std::uint32_t width, int y, Rgb colour) {
  pango_layout_set_font_description(layout, font);
  pango_layout_set_text(layout, text.c_str(), static_cast<int>(text.size()));
  int text_width = 0, text_height = 0;
  pango_layout_get_pixel_size(layout, &text_width, &text_height);
  SetColour(cairo, colour);
  cairo_move_to(cairo, (static_cast<int>(width) - text_width) / 2, y);
  pango_cairo_show_layout(cairo, layout);
}

}  // namespace

HoldingCard::HoldingCard(std::uint32_t width, std::uint32_t height, const std::string& title)
    : width_(width), height_(height), title_(title), surface_(std::make_unique<Surface>()) {
  surface_->surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width),
                                                 static_cast<int>(height));
  const bool made = cairo_surface_status(surface_->surface) == CAIRO_STATUS_SUCCESS &&
                    cairo_image_surface_get_stride(surface_->surface) == static_cast<int>(width * 4);
  MIRELL_CHECK(made, "could not create the holding card");
  surface_->cairo = cairo_create(surface_->surface);
  MIRELL_CHECK(cairo_status(surface_->cairo) == CAIRO_STATUS_SUCCESS,
               "could not create a drawing context for the holding card");
  surface_->layout = pango_cairo_create_layout(surface_->cairo);
  pango_layout_set_single_paragraph_mode(surface_->layout, TRUE);
  surface_->title_font = MakeFont(height / 12, PANGO_WEIGHT_SEMIBOLD);
  surface_->footer_font = MakeFont(height / 26, PANGO_WEIGHT_NORMAL);
  surface_->nv12.resize(media::Nv12FrameSize(width, height));
}

HoldingCard::~HoldingCard() = default;

std::span<const std::uint8_t> HoldingCard::Render(double phase) {
  const double t = Fraction(phase);
  cairo_t* cairo = surface_->cairo;
  const auto width = static_cast<int>(width_);
  const auto height = static_cast<int>(height_);

  // Background and the band, column by column, with the exact mixed colours.
  SetColour(cairo, kBackground);
  cairo_paint(cairo);
  const double c = Fraction(2 * t);
  for (int x = 0; x < width; ++x) {
    const double d = std::abs(static_cast<double>(x) / width - c);
    const double a = std::max(1 - 6 * std::min(d, 1 - d), 0.0);
    if (a <= 0) continue;
    SetColour(cairo, Mix(kBackground, kBand, a));
    cairo_rectangle(cairo, x, 0, 1, height);
    cairo_fill(cairo);
  }

  // The spinner: dot 0 at the top, clockwise, the brightest trailing the phase.
  const int centre_x = width / 2;
  const int centre_y = static_cast<int>(0.34 * height);
  const int ring = height / 9;
  const int base = static_cast<int>(HoldingCardBaseDotRadius(height_));
  for (int i = 0; i < 12; ++i) {
    const double p = i / 12.0;
    const double angle = p * 2 * std::numbers::pi - std::numbers::pi / 2;
    const double brightness = std::pow(1 - Fraction(t - p), 3);
    const int radius = base + static_cast<int>(base * brightness);
    const int x = centre_x + static_cast<int>(std::cos(angle) * ring);
    const int y = centre_y + static_cast<int>(std::sin(angle) * ring);
    SetColour(cairo, Mix(kDotDim, kDotBright, brightness));
    cairo_new_path(cairo);
    cairo_arc(cairo, x, y, radius, 0, 2 * std::numbers::pi);
    cairo_fill(cairo);
  }

  const int title_y = static_cast<int>(0.52 * height);
  const double pulse = 0.35 * (0.5 - 0.5 * std::cos(2 * std::numbers::pi * t));
  DrawCentredText(cairo, surface_->layout, surface_->title_font, title_, width_, title_y,
                  Mix(kTitle, kTitlePulse, pulse));
  const std::string ellipsis(static_cast<std::size_t>(static_cast<int>(4 * t) & 3), '.');
  if (!ellipsis.empty()) {
    DrawCentredText(cairo, surface_->layout, surface_->title_font, ellipsis, width_,
                    height / 11 + title_y, kEllipsis);
  }
  DrawCentredText(cairo, surface_->layout, surface_->footer_font, kFooter, width_,
                  static_cast<int>(0.76 * height), kFooterColour);

  cairo_surface_flush(surface_->surface);
  media::BgraToNv12(bgra(), width_ * 4, width_, height_, surface_->nv12);
  return surface_->nv12;
}

std::span<const std::uint8_t> HoldingCard::bgra() const {
  return {cairo_image_surface_get_data(surface_->surface),
          static_cast<std::size_t>(width_) * height_ * 4};
}

}  // namespace mirell::session
