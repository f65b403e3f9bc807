#include "mirell/daemon/stream_registry.h"

#include <gtest/gtest.h>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "test_frames.h"

namespace mirell::daemon {
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
  EXPECT_NE(log.find("info  mirell::daemon::StreamRegistry::Publish@"), std::string::npos) << log;
  EXPECT_NE(log.find(": publish label=sharing screen token=ABC\n"), std::string::npos) << log;
  EXPECT_NE(log.find("info  mirell::daemon::StreamRegistry::Withdraw@"), std::string::npos) << log;
  EXPECT_NE(log.find(": withdraw label=sharing screen\n"), std::string::npos) << log;
}

TEST_F(StreamRegistryTest, WithdrawOfUnknownTokenIsSilent) {
  registry_.Withdraw("nobody");
  EXPECT_EQ(Log(), "");
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

TEST_F(StreamRegistryTest, TokensAreSorted) {
  registry_.Publish("b", std::make_shared<MediaStream>("b", 30, 1));
  registry_.Publish("a", std::make_shared<MediaStream>("a", 30, 1));
  registry_.Publish("c", std::make_shared<MediaStream>("c", 30, 1));
  EXPECT_EQ(registry_.Tokens(), (std::vector<std::string>{"a", "b", "c"}));
}

}  // namespace
}  // namespace mirell::daemon
