// The account read from VRChat's log as it grows: real files in a temporary directory, appended to
// between polls as VRChat does.
#include "mirell/vrchat/vrchat_identity.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::vrchat {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kId = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";
constexpr const char* kOtherId = "usr_0a1b2c3d-4e5f-6789-abcd-ef0123456789";

std::string AccountLine(const std::string& name, const std::string& id) {
  return "2026.11.24 10:00:00 Log        -  User Authenticated: " + name + " (" + id + ")\n";
}

class VRChatIdentityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "mirell.log"));
    saved_level_ = GetLogLevel();
    SetLogLevel(LogLevel::kDebug);
    fs::create_directories(logs_);
  }
  void TearDown() override { SetLogLevel(saved_level_); }

  void Append(const std::string& text, const std::string& name = "output_log_2026-11-24_10-00-00.txt") {
    std::ofstream(logs_ / name, std::ios::app | std::ios::binary) << text;
  }
  std::string OurLog() const { return testsupport::ReadFileText(dir_.path() / "mirell.log"); }

  testsupport::TempDir dir_;
  fs::path logs_ = dir_.path() / "VRChat";
  LogLevel saved_level_ = LogLevel::kWarn;
};

TEST(VRChatUserId, BothFormsAndNothingElse) {
  EXPECT_TRUE(IsVRChatUserId(kId));
  EXPECT_TRUE(IsVRChatUserId("usr_3F1E7C20-9B4D-4E6A-8C15-7A2D90B6E413"));
  EXPECT_TRUE(IsVRChatUserId("4KxR2T"));
  EXPECT_TRUE(IsVRChatUserId("abcdefghij0123456789"));
  EXPECT_FALSE(IsVRChatUserId("4KxR2"));
  EXPECT_FALSE(IsVRChatUserId("abcdefghij0123456789X"));
  EXPECT_FALSE(IsVRChatUserId("usr_friend"));
  EXPECT_FALSE(IsVRChatUserId("usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e41g"));
  EXPECT_FALSE(IsVRChatUserId("usr_3f1e7c209-b4d-4e6a-8c15-7a2d90b6e413"));
  EXPECT_FALSE(IsVRChatUserId("usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e4133"));
  EXPECT_FALSE(IsVRChatUserId(""));
}

TEST(AuthenticatedAccount, NameIdAndTheirEdges) {
  const auto plain = ParseAuthenticatedAccount(std::string("Alice (") + kId + ")");
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->display_name, "Alice");
  EXPECT_EQ(plain->user_id, kId);
  // The last " (" counts, so a name with parentheses keeps them.
  const auto brackets = ParseAuthenticatedAccount(std::string("Foo (Bar) (") + kId + ")");
  ASSERT_TRUE(brackets);
  EXPECT_EQ(brackets->display_name, "Foo (Bar)");
  EXPECT_EQ(brackets->user_id, kId);
  const auto trailing = ParseAuthenticatedAccount(std::string("Alice (") + kId + ") \t \r\n");
  ASSERT_TRUE(trailing);
  EXPECT_EQ(trailing->user_id, kId);
  const auto older = ParseAuthenticatedAccount("Bob (4KxR2TmqZa)");
  ASSERT_TRUE(older);
  EXPECT_EQ(older->user_id, "4KxR2TmqZa");
  EXPECT_FALSE(ParseAuthenticatedAccount("Bob (abcdefghij0123456789X)"));  // 21 characters.
  EXPECT_FALSE(ParseAuthenticatedAccount(" \r\n"));
  EXPECT_FALSE(ParseAuthenticatedAccount(")"));
  EXPECT_FALSE(ParseAuthenticatedAccount(std::string("Alice(") + kId + ")"));
  EXPECT_FALSE(ParseAuthenticatedAccount(std::string("Alice (") + kId));
}

TEST_F(VRChatIdentityTest, AnAccountLineIsReadAndLoggedOnce) {
  Append("2026.11.24 10:00:00 Log        -  Loading...\n" + AccountLine("Alice", kId));
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_TRUE(watcher.Identity().user_id.empty());
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().user_id, kId);
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
  EXPECT_EQ(watcher.CurrentLog(), logs_ / "output_log_2026-11-24_10-00-00.txt");
  const std::string log = OurLog();
  EXPECT_NE(log.find("account name=Alice"), std::string::npos) << log;
  EXPECT_NE(log.find(std::string("account id=") + kId), std::string::npos) << log;
  EXPECT_NE(log.find("tailing output_log_2026-11-24_10-00-00.txt"), std::string::npos) << log;
  // The same account again changes nothing.
  Append(AccountLine("Alice", kId));
  EXPECT_FALSE(watcher.Poll());
  EXPECT_FALSE(watcher.Poll());
}

TEST_F(VRChatIdentityTest, ALineInTwoPiecesIsReadOnceItsNewlineArrives) {
  const std::string line = AccountLine("Alice", kId);
  Append(line.substr(0, 40));
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_FALSE(watcher.Poll());
  Append(line.substr(40, 30));
  EXPECT_FALSE(watcher.Poll());
  EXPECT_TRUE(watcher.Identity().user_id.empty());
  Append(line.substr(70));
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().user_id, kId);
}

TEST_F(VRChatIdentityTest, AnIdOfTwentyOneCharactersLeavesTheAccountAsItWas) {
  Append(AccountLine("Alice", kId));
  VRChatIdentityWatcher watcher(logs_);
  ASSERT_TRUE(watcher.Poll());
  Append(AccountLine("Mallory", "abcdefghij0123456789X"));
  EXPECT_FALSE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
}

TEST_F(VRChatIdentityTest, ALineEndingInCarriageReturnAndBlanksIsAccepted) {
  Append(std::string("x  User Authenticated: Alice (") + kId + ")  \t\r\n");
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().user_id, kId);
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
}

TEST_F(VRChatIdentityTest, TwoAccountsInOneReadTheLaterWinsWithOneChange) {
  Append(AccountLine("Alice", kId) + AccountLine("Bob", kOtherId));
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Bob");
  EXPECT_EQ(watcher.Identity().user_id, kOtherId);
  const std::string log = OurLog();
  EXPECT_EQ(log.find("account name=Alice"), std::string::npos) << log;
  EXPECT_NE(log.find("account name=Bob"), std::string::npos) << log;
}

TEST_F(VRChatIdentityTest, AShorterLogUnderTheSameNameIsReadFromItsBeginning) {
  Append(std::string(500, 'x') + "\n" + AccountLine("Alice", kId));
  VRChatIdentityWatcher watcher(logs_);
  ASSERT_TRUE(watcher.Poll());
  std::ofstream(logs_ / "output_log_2026-11-24_10-00-00.txt", std::ios::trunc) << AccountLine("Bob", kOtherId);
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Bob");
}

TEST_F(VRChatIdentityTest, ANewerLogIsFollowedAndTheAccountStandsUntilItNamesAnother) {
  Append(AccountLine("Alice", kId), "output_log_2026-11-24_10-00-00.txt");
  VRChatIdentityWatcher watcher(logs_);
  ASSERT_TRUE(watcher.Poll());
  // VRChat started again: a new file, newer by its write time.
  const auto second = logs_ / "output_log_2026-11-24_11-00-00.txt";
  Append("2026.11.24 11:00:00 Log        -  Starting\n", second.filename().string());
  fs::last_write_time(second, fs::last_write_time(logs_ / "output_log_2026-11-24_10-00-00.txt") + 1s);
  EXPECT_FALSE(watcher.Poll());
  EXPECT_EQ(watcher.CurrentLog(), second);
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
  Append(AccountLine("Bob", kOtherId), second.filename().string());
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Bob");
}

TEST_F(VRChatIdentityTest, ADirectoryWithoutLogsGivesNothingAndTheCurrentLogStays) {
  VRChatIdentityWatcher empty(logs_);
  std::ofstream(logs_ / "output_log.log") << AccountLine("Alice", kId);
  std::ofstream(logs_ / "player_log_1.txt") << AccountLine("Alice", kId);
  fs::create_directories(logs_ / "output_log_dir.txt");
  EXPECT_FALSE(empty.Poll());
  EXPECT_TRUE(empty.CurrentLog().empty());

  Append(AccountLine("Alice", kId));
  VRChatIdentityWatcher watcher(logs_);
  ASSERT_TRUE(watcher.Poll());
  const auto current = watcher.CurrentLog();
  fs::remove(current);
  EXPECT_FALSE(watcher.Poll());
  EXPECT_EQ(watcher.CurrentLog(), current);
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
}

TEST_F(VRChatIdentityTest, TheShortestQualifyingNameIsRead) {
  Append(AccountLine("Alice", kId), "output_log_.txt");
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.CurrentLog().filename(), "output_log_.txt");
}

TEST_F(VRChatIdentityTest, ALineWithoutEndIsDroppedPastAMebibyteAndReadingGoesOn) {
  Append(std::string(0x100000 + 70000, 'y'));
  VRChatIdentityWatcher watcher(logs_);
  EXPECT_FALSE(watcher.Poll());
  // What stood of the endless line is gone; the rest of it ends here, then a real line follows.
  Append("tail of the long line\n" + AccountLine("Alice", kId));
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
  // An account line longer than the limit loses its beginning, and with it the account.
  Append(std::string("User Authenticated: ") + std::string(0x100000 + 70000, 'z') + " (" + kOtherId + ")\n");
  EXPECT_FALSE(watcher.Poll());
  EXPECT_EQ(watcher.Identity().display_name, "Alice");
}

TEST_F(VRChatIdentityTest, NoDirectoryOrAMissingOneGivesNothing) {
  VRChatIdentityWatcher missing(dir_.path() / "nowhere");
  EXPECT_FALSE(missing.Poll());
  EXPECT_TRUE(missing.Identity().user_id.empty());
}

TEST_F(VRChatIdentityTest, TheDefaultFolderInTheProtonPrefixIsFoundEvenWhenItAppearsLater) {
  const std::string saved_home = getenv("HOME") != nullptr ? getenv("HOME") : "";
  setenv("HOME", dir_.path().c_str(), 1);
  VRChatIdentityWatcher watcher;
  EXPECT_FALSE(watcher.Poll());
  // VRChat's first run under Proton makes the prefix and its folder.
  const auto folder = dir_.path() /
                      ".local/share/Steam/steamapps/compatdata/438100/pfx/drive_c/users/steamuser/AppData/"
                      "LocalLow/VRChat/VRChat";
  fs::create_directories(folder);
  std::ofstream(folder / "output_log_2026-11-24_10-00-00.txt") << AccountLine("Alice", kId);
  EXPECT_TRUE(watcher.Poll());
  EXPECT_EQ(watcher.CurrentLog(), folder / "output_log_2026-11-24_10-00-00.txt");
  setenv("HOME", saved_home.c_str(), 1);
}

TEST_F(VRChatIdentityTest, IdentityCanBeReadWhileAnotherThreadPolls) {
  VRChatIdentityWatcher watcher(logs_);
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      const auto identity = watcher.Identity();
      // Never half of one account and half of another.
      const std::string expected = identity.display_name == "Bob" ? kOtherId : kId;
      if (!identity.display_name.empty()) {
        EXPECT_EQ(identity.user_id, expected);
      }
    }
  });
  for (int i = 0; i < 200; ++i) {
    Append(i % 2 == 0 ? AccountLine("Alice", kId) : AccountLine("Bob", kOtherId));
    EXPECT_TRUE(watcher.Poll());
  }
  done = true;
  reader.join();
}

TEST_F(VRChatIdentityTest, TheWatcherMoves) {
  Append(AccountLine("Alice", kId));
  VRChatIdentityWatcher first(logs_);
  ASSERT_TRUE(first.Poll());
  VRChatIdentityWatcher moved(std::move(first));
  EXPECT_EQ(moved.Identity().display_name, "Alice");
  Append(AccountLine("Bob", kOtherId));
  EXPECT_TRUE(moved.Poll());
}

}  // namespace
}  // namespace mirell::vrchat
