// The allowlist store: "id|name" strings under one QSettings key, ids checked on load and on add,
// and the keys let in under each id beside it.
#include <gtest/gtest.h>

#include <QSettings>
#include <QStringList>

#include "mirell/settings/allowlist.h"
#include "temporary_settings.h"

namespace mirell::settings {
namespace {

constexpr const char* kAnn = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";
constexpr const char* kBob = "usr_0a1b2c3d-4e5f-6789-abcd-ef0123456789";

using Allowlist = TemporarySettings;

TEST_F(Allowlist, AnEmptyKeyGivesAnEmptyList) { EXPECT_TRUE(LoadAllowlist().empty()); }

TEST_F(Allowlist, UppercaseHexInTheCurrentFormIsAccepted) {
  std::vector<AllowlistEntry> entries;
  EXPECT_TRUE(AddToAllowlist(entries, "usr_3F1E7C20-9B4D-4E6A-8C15-7A2D90B6E413", ""));
  EXPECT_EQ(entries.size(), 1u);
}

TEST_F(Allowlist, OldCodesOfSixToTwentyLettersAndDigitsOnly) {
  std::vector<AllowlistEntry> entries;
  EXPECT_FALSE(AddToAllowlist(entries, "4KxR2", "")) << "5 characters";
  EXPECT_FALSE(AddToAllowlist(entries, "4KxR2TmqZa4KxR2TmqZa1", "")) << "21 characters";
  EXPECT_FALSE(AddToAllowlist(entries, "4KxR2_mqZa", ""));
  EXPECT_FALSE(AddToAllowlist(entries, "4KxR2-mqZa", ""));
  EXPECT_TRUE(AddToAllowlist(entries, "4KxR2T", ""));
  EXPECT_TRUE(AddToAllowlist(entries, "4KxR2TmqZa4KxR2TmqZa", ""));
  EXPECT_EQ(entries.size(), 2u);
}

TEST_F(Allowlist, OnlyTheFirstBarSeparatesAndAnElementWithoutOneIsAnIdAlone) {
  Store("access/allowlist", QStringList{QString(kAnn) + "|Ann|the|first", kBob, "not an id|Eve",
                                        "4KxR2TmqZa|"});
  const std::vector<AllowlistEntry> loaded = LoadAllowlist();
  ASSERT_EQ(loaded.size(), 3u) << "an element whose id fails the test is dropped";
  EXPECT_EQ(loaded[0].user_id, kAnn);
  EXPECT_EQ(loaded[0].name, "Ann|the|first");
  EXPECT_EQ(loaded[1].user_id, kBob);
  EXPECT_EQ(loaded[1].name, "");
  EXPECT_EQ(loaded[2].user_id, "4KxR2TmqZa");
}

TEST_F(Allowlist, AddingAnExistingIdRenamesItOnlyWithANameAndKeepsItsPlace) {
  std::vector<AllowlistEntry> entries;
  ASSERT_TRUE(AddToAllowlist(entries, kAnn, "Ann"));
  ASSERT_TRUE(AddToAllowlist(entries, kBob, "Bob"));
  EXPECT_TRUE(AddToAllowlist(entries, kAnn, "Annie"));
  EXPECT_TRUE(AddToAllowlist(entries, kBob, ""));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].user_id, kAnn);
  EXPECT_EQ(entries[0].name, "Annie");
  EXPECT_EQ(entries[1].name, "Bob");
}

TEST_F(Allowlist, ANameWithABarSavedAndLoadedComesBackWhole) {
  SaveAllowlist({{kAnn, "Ann | work", {}}, {kBob, "", {}}});
  const std::vector<AllowlistEntry> loaded = LoadAllowlist();
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[0].name, "Ann | work");
  EXPECT_EQ(loaded[1].user_id, kBob);
  EXPECT_EQ(QSettings().value("access/allowlist").toStringList(),
            (QStringList{QString(kAnn) + "|Ann | work", QString(kBob) + "|"}));
}

TEST_F(Allowlist, KeysAreStoredBesideTheListAndComeBackWithTheirEntries) {
  std::vector<AllowlistEntry> entries;
  ASSERT_TRUE(AddToAllowlist(entries, kAnn, "Ann", "SHA256:one"));
  ASSERT_TRUE(AddToAllowlist(entries, kBob, "Bob"));
  ASSERT_TRUE(AddToAllowlist(entries, kAnn, "", "SHA256:two"));
  ASSERT_TRUE(AddToAllowlist(entries, kAnn, "", "SHA256:one"));
  SaveAllowlist(entries);
  EXPECT_EQ(QSettings().value("access/allowlist").toStringList(),
            (QStringList{QString(kAnn) + "|Ann", QString(kBob) + "|Bob"}))
      << "the list keeps the form older versions read";
  const std::vector<AllowlistEntry> loaded = LoadAllowlist();
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[0].key_fingerprints, (std::vector<std::string>{"SHA256:one", "SHA256:two"}));
  EXPECT_TRUE(loaded[1].key_fingerprints.empty());
}

TEST_F(Allowlist, AKeyIsBoundOnlyToAnIdOnTheList) {
  std::vector<AllowlistEntry> entries;
  ASSERT_TRUE(AddToAllowlist(entries, kAnn, "Ann"));
  EXPECT_FALSE(AddKeyToAllowlist(entries, kBob, "SHA256:x"));
  EXPECT_TRUE(AddKeyToAllowlist(entries, kAnn, "SHA256:x"));
  EXPECT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].key_fingerprints, std::vector<std::string>{"SHA256:x"});
}

TEST_F(Allowlist, KeysOfIdsNoLongerListedAreDropped) {
  Store("access/allowlist", QStringList{QString(kAnn) + "|Ann"});
  Store("access/allowlistKeys", QStringList{QString(kBob) + "|SHA256:b", QString(kAnn) + "|SHA256:a"});
  const std::vector<AllowlistEntry> loaded = LoadAllowlist();
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].key_fingerprints, std::vector<std::string>{"SHA256:a"});
}

}  // namespace
}  // namespace mirell::settings
