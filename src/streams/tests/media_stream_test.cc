#include "mirell/streams/media_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "test_frames.h"

namespace mirell::streams {
namespace {

TEST(MediaStream, ZeroFpsStandsForThirty) {
  MediaStream stream("sharing x", 0, 6000);
  EXPECT_EQ(stream.fps(), 30u);
  EXPECT_EQ(stream.bitrate_kbps(), 6000u);
  EXPECT_EQ(stream.label(), "sharing x");
}

TEST(MediaStream, SetVideoParametersZeroChangesNothing) {
  MediaStream stream("s", 60, 8000);
  stream.SetVideoParameters(0, 0);
  EXPECT_EQ(stream.fps(), 60u);
  EXPECT_EQ(stream.bitrate_kbps(), 8000u);
  stream.SetVideoParameters(24, 0);
  EXPECT_EQ(stream.fps(), 24u);
  EXPECT_EQ(stream.bitrate_kbps(), 8000u);
  stream.SetVideoParameters(0, 3000);
  EXPECT_EQ(stream.bitrate_kbps(), 3000u);
}

TEST(MediaStream, FreshStreamIsDescribed) {
  MediaStream stream("s", 30, 1);
  EXPECT_TRUE(stream.IsDescribed());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(stream.WaitDescribed(5000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(MediaStream, WaitDescribedTimesOutThenSeesMarkFromAnotherThread) {
  MediaStream stream("s", 30, 1);
  stream.ExpectDescription();
  EXPECT_FALSE(stream.IsDescribed());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(stream.WaitDescribed(40));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  std::thread marker([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stream.MarkDescribed();
  });
  EXPECT_TRUE(stream.WaitDescribed(10'000));
  marker.join();
}

TEST(MediaStream, SetPrimingSizesTheVideoHistory) {
  MediaStream stream("s", 30, 1);
  stream.SetPriming(12, 400);
  EXPECT_EQ(stream.prime_frames(), 12u);
  EXPECT_EQ(stream.prime_ms(), 400u);
  for (int i = 0; i < 200; ++i) stream.frames().Publish(testing::Frame(i, i == 0));
  EXPECT_EQ(stream.frames().HistorySize(), 12u + 90u);
}

TEST(MediaStream, SetPrimingZeroLeavesTheHistoryLimit) {
  MediaStream stream("s", 30, 1);
  stream.SetPriming(2, 66);
  stream.SetPriming(0, 500);
  EXPECT_EQ(stream.prime_frames(), 0u);
  EXPECT_EQ(stream.prime_ms(), 500u);
  for (int i = 0; i < 200; ++i) stream.frames().Publish(testing::Frame(i, false));
  EXPECT_EQ(stream.frames().HistorySize(), 92u);
}

TEST(MediaStream, SequenceHeaderAndAudioAreCopies) {
  MediaStream stream("s", 30, 1);
  EXPECT_TRUE(stream.SequenceHeader().empty());
  EXPECT_FALSE(stream.Audio().has_value());
  const std::vector<std::uint8_t> header = {0, 0, 0, 1, 0x67, 0x42};
  stream.SetSequenceHeader(header);
  EXPECT_EQ(stream.SequenceHeader(), header);
  const AudioConfig config{48000, 2, 128, {0x11, 0x90}};
  stream.SetAudio(config);
  EXPECT_EQ(stream.Audio(), config);
}

TEST(MediaStream, RequestKeyframeCallsTheRequesterWithoutTheLock) {
  MediaStream stream("s", 30, 1);
  stream.RequestKeyframe();  // No requester: nothing happens.
  int calls = 0;
  // The requester may call back into the stream; that would deadlock under the stream's lock.
  stream.SetKeyframeRequester([&] {
    ++calls;
    stream.SetVideoParameters(25, 0);
    (void)stream.Audio();
  });
  stream.RequestKeyframe();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(stream.fps(), 25u);
  stream.SetKeyframeRequester({});
  stream.RequestKeyframe();
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace mirell::streams
