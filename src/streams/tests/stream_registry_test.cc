#include "mirell/streams/stream_registry.h"

#include <gtest/gtest.h>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "test_frames.h"

namespace mirell::streams {
namespace {

class StreamRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kInfo);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
  }
  void TearDown() override { SetLogLevel(LogLevel::kWarn); }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  testsupport::TempDir dir_;
  StreamRegistry registry_;
};

TEST_F(StreamRegistryTest, PublishFindWithdraw) {
  auto stream = std::make_shared<MediaStream>("sharing screen", 30, 6000);
  registry_.Publish("ABC", stream);
  EXPECT_EQ(registry_.Find("ABC"), stream);
  EXPECT_EQ(registry_.Find("abc"), nullptr);
  EXPECT_EQ(registry_.Size(), 1u);
  auto video = stream->frames().Subscribe(8, 0);
  auto audio = stream->audio().Subscribe(8, -1);
  registry_.Withdraw("ABC");
  EXPECT_EQ(registry_.Find("ABC"), nullptr);
  EXPECT_TRUE(video->Closed());
  EXPECT_TRUE(audio->Closed());
  const std::string log = Log();
  EXPECT_NE(log.find("info  mirell::streams::StreamRegistry::Publish@"), std::string::npos) << log;
  EXPECT_NE(log.find(": publish label=sharing screen token=ABC\n"), std::string::npos) << log;
  EXPECT_NE(log.find("info  mirell::streams::StreamRegistry::Withdraw@"), std::string::npos) << log;
  EXPECT_NE(log.find(": withdraw label=sharing screen\n"), std::string::npos) << log;
}

TEST_F(StreamRegistryTest, WithdrawOfUnknownTokenIsSilent) {
  registry_.Withdraw("nobody");
  EXPECT_EQ(Log(), "");
}

TEST_F(StreamRegistryTest, AWithdrawOfOneStreamLeavesTheOneThatReplacedIt) {
  auto old_stream = std::make_shared<MediaStream>("old", 30, 1);
  auto new_stream = std::make_shared<MediaStream>("new", 30, 1);
  registry_.Publish("T", old_stream);
  registry_.Publish("T", new_stream);
  auto reader = new_stream->frames().Subscribe(8, 0);
  registry_.Withdraw("T", old_stream.get());
  EXPECT_EQ(registry_.Find("T"), new_stream);
  EXPECT_FALSE(reader->Closed());
  registry_.Withdraw("T", new_stream.get());
  EXPECT_EQ(registry_.Find("T"), nullptr);
  EXPECT_TRUE(reader->Closed());
}

TEST_F(StreamRegistryTest, RepublishKeepsTheOldStreamAliveForItsHolders) {
  auto old_stream = std::make_shared<MediaStream>("old", 30, 1);
  auto new_stream = std::make_shared<MediaStream>("new", 30, 1);
  registry_.Publish("T", old_stream);
  auto held = registry_.Find("T");
  auto reader = held->frames().Subscribe(8, 0);
  registry_.Publish("T", new_stream);
  EXPECT_EQ(registry_.Find("T"), new_stream);
  EXPECT_FALSE(reader->Closed()) << "the replaced stream is not closed";
  held->frames().Publish(testing::Frame(0, true));
  EXPECT_EQ(reader->FrontTimestamp(), 0);
  EXPECT_EQ(registry_.Size(), 1u);
}

TEST_F(StreamRegistryTest, MoveEndsTheOldReadersAndTheStreamPlaysOnUnderTheNewToken) {
  auto stream = std::make_shared<MediaStream>("moving", 30, 1);
  stream->frames().SetHistory(30);
  stream->audio().SetHistory(30);
  registry_.Publish("OLD", stream);
  stream->frames().Publish(testing::Frame(0, true));
  auto old_video = stream->frames().Subscribe(8, 0);
  auto old_audio = stream->audio().Subscribe(8, -1);

  registry_.Move("OLD", "NEW");
  EXPECT_EQ(registry_.Find("OLD"), nullptr);
  EXPECT_EQ(registry_.Find("NEW"), stream);
  EXPECT_EQ(registry_.Tokens(), std::vector<std::string>{"NEW"});
  EXPECT_TRUE(old_video->Closed());
  EXPECT_TRUE(old_audio->Closed());
  EXPECT_EQ(stream->frames().SubscriberCount(), 0u);
  EXPECT_EQ(stream->audio().SubscriberCount(), 0u);

  // A reader of the new token is primed from the history that was kept and gets what follows.
  auto video = registry_.Find("NEW")->frames().Subscribe(8, 1);
  auto audio = registry_.Find("NEW")->audio().Subscribe(8, -1);
  EXPECT_FALSE(video->Closed());
  EXPECT_EQ(video->FrontTimestamp(), 0);
  stream->frames().Publish(testing::Frame(333333, false));
  stream->audio().Publish(testing::Unit(1000));
  EXPECT_NE(video->Pop(0), nullptr);
  const auto next = video->Pop(0);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->pts_100ns, 333333);
  const auto unit = audio->TryPop();
  ASSERT_NE(unit, nullptr);
  EXPECT_EQ(unit->pts_100ns, 1000);
}

TEST_F(StreamRegistryTest, MoveOfAnUnknownTokenDoesNothing) {
  registry_.Publish("A", std::make_shared<MediaStream>("a", 30, 1));
  registry_.Move("nobody", "B");
  EXPECT_EQ(registry_.Tokens(), std::vector<std::string>{"A"});
}

TEST_F(StreamRegistryTest, TokensAreSorted) {
  registry_.Publish("b", std::make_shared<MediaStream>("b", 30, 1));
  registry_.Publish("a", std::make_shared<MediaStream>("a", 30, 1));
  registry_.Publish("c", std::make_shared<MediaStream>("c", 30, 1));
  EXPECT_EQ(registry_.Tokens(), (std::vector<std::string>{"a", "b", "c"}));
}

}  // namespace
}  // namespace mirell::streams
