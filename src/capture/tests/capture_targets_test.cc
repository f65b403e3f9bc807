// The platform-free parts of the capture targets: the title search and monitor names from EDID.
#include <gtest/gtest.h>

#include <array>

#include "mirell/capture/capture_targets.h"

namespace mirell::capture {
namespace {

TEST(FindWindowByTitleIn, MatchesASubstringIgnoringAsciiCaseInListOrder) {
  const std::vector<CapturableWindow> windows{{11, "Terminal - build", "", 0, 100, 100},
                                              {12, "VRChat", "", 0, 100, 100},
                                              {13, "Another vrchat tab", "", 0, 100, 100}};
  EXPECT_EQ(FindWindowByTitleIn(windows, "vrCHAT"), 12u);
  EXPECT_EQ(FindWindowByTitleIn(windows, "BUILD"), 11u);
  EXPECT_EQ(FindWindowByTitleIn(windows, "missing"), 0u);
}

TEST(FindWindowByTitleIn, AnEmptyTextFindsNothing) {
  const std::vector<CapturableWindow> windows{{11, "Anything", "", 0, 100, 100}};
  EXPECT_EQ(FindWindowByTitleIn(windows, ""), 0u);
}

std::array<std::uint8_t, 128> EdidWith(int descriptor, std::uint8_t tag, const std::string& text) {
  std::array<std::uint8_t, 128> edid{};
  const std::size_t at = 54 + static_cast<std::size_t>(descriptor) * 18;
  edid[at + 3] = tag;
  for (std::size_t i = 0; i < 13; ++i) edid[at + 5 + i] = i < text.size() ? static_cast<std::uint8_t>(text[i]) : ' ';
  if (text.size() < 13) edid[at + 5 + text.size()] = '\n';
  return edid;
}

TEST(EdidMonitorName, TheNameDescriptorGivesTheName) {
  EXPECT_EQ(EdidMonitorName(EdidWith(2, 0xFC, "DELL U2720Q")), "DELL U2720Q");
  EXPECT_EQ(EdidMonitorName(EdidWith(3, 0xFC, "THIRTEEN CHAR")), "THIRTEEN CHAR");
}

TEST(EdidMonitorName, NoNameDescriptorOrAShortBlockGivesNothing) {
  EXPECT_EQ(EdidMonitorName(EdidWith(1, 0xFF, "SERIAL123")), "");
  const auto edid = EdidWith(0, 0xFC, "Name");
  EXPECT_EQ(EdidMonitorName(std::span<const std::uint8_t>(edid.data(), 100)), "");
}

}  // namespace
}  // namespace mirell::capture
