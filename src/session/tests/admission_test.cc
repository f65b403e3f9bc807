#include "mirell/session/admission.h"

#include <gtest/gtest.h>

namespace mirell::session {
namespace {

constexpr const char* kFriend = "usr_00000000-0000-0000-0000-000000000001";

TEST(AdmissionTest, NobodyAndStrangersAreAsked) {
  const Allowlist allowlist{{kFriend, {"Friend", {"SHA256:a"}, false}}};
  EXPECT_EQ(Decide(allowlist, {"", ""}), AdmissionVerdict::kAsk);
  EXPECT_EQ(Decide(allowlist, {"", "SHA256:a"}), AdmissionVerdict::kAsk);
  EXPECT_EQ(Decide(allowlist, {"usr_someone-else", "SHA256:a"}), AdmissionVerdict::kAsk);
}

TEST(AdmissionTest, AListedIdGetsInOnlyWithAKeyLetInBefore) {
  const Allowlist allowlist{{kFriend, {"Friend", {"SHA256:a", "SHA256:b"}, false}}};
  EXPECT_EQ(Decide(allowlist, {kFriend, "SHA256:a"}), AdmissionVerdict::kLetIn);
  EXPECT_EQ(Decide(allowlist, {kFriend, "SHA256:b"}), AdmissionVerdict::kLetIn);
  EXPECT_EQ(Decide(allowlist, {kFriend, ""}), AdmissionVerdict::kAsk) << "a claim alone";
  EXPECT_EQ(Decide(allowlist, {kFriend, "SHA256:c"}), AdmissionVerdict::kAskOtherComputer);
}

TEST(AdmissionTest, AnEntryWithoutKeysAsksOnceWhateverIsProved) {
  const Allowlist allowlist{{kFriend, {"Friend", {}, false}}};
  EXPECT_EQ(Decide(allowlist, {kFriend, "SHA256:a"}), AdmissionVerdict::kAsk);
  EXPECT_EQ(Decide(allowlist, {kFriend, ""}), AdmissionVerdict::kAsk);
}

TEST(AdmissionTest, ACommandLineEntryGoesByTheClaimedIdOnly) {
  const Allowlist allowlist{{kFriend, {"", {}, true}}};
  EXPECT_EQ(Decide(allowlist, {kFriend, ""}), AdmissionVerdict::kLetInByClaim);
  EXPECT_EQ(Decide(allowlist, {kFriend, "SHA256:z"}), AdmissionVerdict::kLetInByClaim);
}

}  // namespace
}  // namespace mirell::session
