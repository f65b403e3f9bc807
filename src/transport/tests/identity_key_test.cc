#include "mirell/transport/identity_key.h"

#include <gtest/gtest.h>

#include <vector>

namespace mirell::transport {
namespace {

TEST(IdentityKeyTest, ASignatureFitsItsMessageAndKeyOnly) {
  const IdentityKey key = IdentityKey::Generate();
  const std::string signature = key.Sign("hello");
  EXPECT_TRUE(VerifySignature(key.PublicText(), "hello", signature));
  EXPECT_FALSE(VerifySignature(key.PublicText(), "hellO", signature));
  const IdentityKey other = IdentityKey::Generate();
  EXPECT_NE(other.PublicText(), key.PublicText());
  EXPECT_FALSE(VerifySignature(other.PublicText(), "hello", signature));
}

TEST(IdentityKeyTest, ThePrivateTextGivesTheSameKeyBack) {
  const IdentityKey key = IdentityKey::Generate();
  const auto again = IdentityKey::FromPrivateText(key.PrivateText());
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->PublicText(), key.PublicText());
  EXPECT_TRUE(VerifySignature(key.PublicText(), "x", again->Sign("x")));
  EXPECT_EQ(key.PublicText().size(), 44u);
  EXPECT_EQ(key.Sign("x").size(), 88u);
}

TEST(IdentityKeyTest, TextThatIsNoKeyIsRefused) {
  for (const std::string& text : std::vector<std::string>{"", "abc", "not base64 at all, not base64 at all, not!",
                                                         std::string(44, 'A') + "=", std::string(43, 'A') + "B"}) {
    EXPECT_FALSE(IdentityKey::FromPrivateText(text).has_value()) << text;
    EXPECT_EQ(KeyFingerprint(text), "") << text;
  }
  const IdentityKey key = IdentityKey::Generate();
  const std::string signature = key.Sign("m");
  EXPECT_FALSE(VerifySignature("", "m", signature));
  EXPECT_FALSE(VerifySignature(key.PublicText(), "m", ""));
  std::string altered = signature;
  altered[10] = altered[10] == 'A' ? 'B' : 'A';
  EXPECT_FALSE(VerifySignature(key.PublicText(), "m", altered));
  EXPECT_FALSE(VerifySignature(key.PublicText(), "m", signature.substr(0, 84) + "===="));
  EXPECT_FALSE(VerifySignature(key.PublicText(), "m", signature + "A"));
}

TEST(IdentityKeyTest, TheFingerprintIsTheKeysSha256InBase64) {
  // The key of RFC 8032's first test vector; its SHA-256 computed apart, with Python's hashlib.
  const std::string public_text = "11qYAYKxCrfVS/7TyWQHOg7hcvPapiMlrwIaaPcHURo=";
  EXPECT_EQ(KeyFingerprint(public_text), "SHA256:If4x36FUomFia/hUBG/SJxt77UtqvkWqWId+9H+XIbk");
}

TEST(IdentityKeyTest, AKnownPrivateKeyGivesItsKnownPublicKeyAndSignature) {
  // RFC 8032, section 7.1, test 1 (an empty message).
  const auto key = IdentityKey::FromPrivateText("nWGxne/9WmC6hEr0kuwsxERJxWl7MmkZcDusAxyuf2A=");
  ASSERT_TRUE(key.has_value());
  EXPECT_EQ(key->PublicText(), "11qYAYKxCrfVS/7TyWQHOg7hcvPapiMlrwIaaPcHURo=");
  EXPECT_EQ(key->Sign(""),
            "5VZDAMNgrHKQhuLMgG6CioSHfx645dl02HPgZSJJAVVfuIIVkKM7rMYeOXAc+bRr0lv18FlbviRlUUFDjnoQCw==");
}

}  // namespace
}  // namespace mirell::transport
