// A connection's gathered write: own bytes merged within a section, shared payloads referred to
// and held, sections moved ahead whole.
#include "gathered_write.h"

#include <gtest/gtest.h>

#include <string>

namespace mirell::rtsp {
namespace {

std::span<const std::uint8_t> Bytes(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string Gathered(const GatheredWrite& write) {
  std::string all;
  for (const auto& buffer : write.Buffers()) all.append(static_cast<const char*>(buffer.data()), buffer.size());
  return all;
}

TEST(GatheredWrite, OwnBytesOfOneSectionAreOnePartAndSharedBytesAreReferredTo) {
  GatheredWrite write;
  write.AppendOwn(Bytes("ab"));
  write.AppendOwn(Bytes("cd"));
  EXPECT_EQ(write.parts(), 1u);
  auto payload = std::make_shared<const std::string>("PAYLOAD");
  write.AppendShared(Bytes(*payload), payload);
  EXPECT_EQ(payload.use_count(), 2) << "held until the write is cleared";
  write.AppendOwn(Bytes("e"));
  EXPECT_EQ(write.parts(), 3u);
  EXPECT_EQ(write.size(), 12u);
  EXPECT_EQ(Gathered(write), "abcdPAYLOADe");
  EXPECT_EQ(write.Buffers()[1].data(), payload->data()) << "not copied";
  write.Clear();
  EXPECT_TRUE(write.empty());
  EXPECT_EQ(payload.use_count(), 1);
}

TEST(GatheredWrite, ASectionMovedToTheFrontOfAnotherTakesNothingOfWhatCameBefore) {
  GatheredWrite write;
  write.AppendOwn(Bytes("answer;"));
  const std::size_t step = write.StartSection();
  write.AppendOwn(Bytes("[header]"));  // Would have merged into the answer without the section.
  auto payload = std::make_shared<const std::string>("payload;");
  write.AppendShared(Bytes(*payload), payload);
  const std::size_t reports = write.StartSection();
  write.AppendOwn(Bytes("report;"));
  write.MoveToFront(step, reports);
  EXPECT_EQ(Gathered(write), "answer;report;[header]payload;");
}

TEST(GatheredWrite, AnEmptySharedPartIsLeftOut) {
  GatheredWrite write;
  auto payload = std::make_shared<const std::string>();
  write.AppendShared(Bytes(*payload), payload);
  EXPECT_TRUE(write.empty());
  EXPECT_EQ(payload.use_count(), 1);
}

}  // namespace
}  // namespace mirell::rtsp
