// The network store and the ICE servers it gives, read back through QSettings in a temporary
// configuration directory. This process has no secret store (no session bus), so the password
// cases that need one run in secret_store_test.cc.
#include <gtest/gtest.h>

#include <QSettings>
#include <cstdlib>

#include "mirell/base/logging.h"
#include "mirell/settings/network_settings.h"
#include "temporary_settings.h"

namespace mirell::settings {
namespace {

class NetworkStore : public TemporarySettings {
 protected:
  void SetUp() override {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("DISPLAY");
    TemporarySettings::SetUp();
    ASSERT_TRUE(SetLogFile(log_dir_.path() / "log"));
  }
  std::string Log() const { return testsupport::ReadFileText(log_dir_.path() / "log"); }
  static std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  testsupport::TempDir log_dir_;
};

TEST_F(NetworkStore, NothingStoredIsCloudflareAndNoRelay) {
  const NetworkSettings loaded = LoadNetworkSettings();
  EXPECT_EQ(loaded.stun, "cloudflare");
  EXPECT_TRUE(loaded.custom_stun.empty());
  EXPECT_TRUE(loaded.turn_url.empty());
  EXPECT_TRUE(loaded.turn_user.empty());
  EXPECT_TRUE(loaded.turn_credential.empty());
  const std::vector<transport::IceServer> servers = BuildIceServers(loaded);
  ASSERT_EQ(servers.size(), 1u);
  EXPECT_EQ(servers[0].url, "stun:stun.cloudflare.com:3478");
  EXPECT_EQ(Log().find("unknown STUN choice"), std::string::npos);
}

TEST_F(NetworkStore, TheTextKeysAreStoredAsTyped) {
  SaveNetworkSettings({"", "custom", "stun:not a url", "turn:relay.example:3478", " bob ", ""});
  const QSettings stored;
  EXPECT_EQ(stored.value("network/stun").toString(), "custom");
  EXPECT_EQ(stored.value("network/customStun").toString(), "stun:not a url");
  EXPECT_EQ(stored.value("network/turnUrl").toString(), "turn:relay.example:3478");
  EXPECT_EQ(stored.value("network/turnUser").toString(), " bob ");
  EXPECT_TRUE(stored.value("network/turnCredential").toByteArray().isEmpty());
  const NetworkSettings loaded = LoadNetworkSettings();
  EXPECT_EQ(loaded.stun, "custom");
  EXPECT_EQ(loaded.custom_stun, "stun:not a url");
  EXPECT_EQ(loaded.turn_user, " bob ");
}

TEST_F(NetworkStore, NoneWithoutARelayGivesNoServerAtAll) {
  EXPECT_TRUE(BuildIceServers({"", "none", "", "", "", ""}).empty());
}

TEST_F(NetworkStore, CustomWithAnEmptyAddressGivesNoServerEither) {
  EXPECT_TRUE(BuildIceServers({"", "custom", "", "", "", ""}).empty());
  const auto servers = BuildIceServers({"", "custom", "stun:mine.example:3478", "", "", ""});
  ASSERT_EQ(servers.size(), 1u);
  EXPECT_EQ(servers[0].url, "stun:mine.example:3478");
  EXPECT_TRUE(servers[0].username.empty());
}

TEST_F(NetworkStore, NoneWithARelayGivesTheRelayAlone) {
  const auto servers = BuildIceServers({"", "none", "", "turn:relay.example:3478", "bob", "pw "});
  ASSERT_EQ(servers.size(), 1u);
  EXPECT_EQ(servers[0].url, "turn:relay.example:3478");
  EXPECT_EQ(servers[0].username, "bob");
  EXPECT_EQ(servers[0].credential, "pw ");
}

TEST_F(NetworkStore, StunComesBeforeTheRelay) {
  const auto servers = BuildIceServers({"", "google", "ignored", "turn:relay.example", "u", "p"});
  ASSERT_EQ(servers.size(), 2u);
  EXPECT_EQ(servers[0].url, "stun:stun.l.google.com:19302");
  EXPECT_EQ(servers[1].url, "turn:relay.example");
}

TEST_F(NetworkStore, AnUnknownChoiceIsReplacedOnEveryLoadUntilSaved) {
  Store("network/stun", "opendns");
  EXPECT_EQ(LoadNetworkSettings().stun, "cloudflare");
  EXPECT_EQ(LoadNetworkSettings().stun, "cloudflare");
  EXPECT_EQ(Count(Log(), "unknown STUN choice 'opendns', using the default"), 2u) << Log();
  EXPECT_EQ(QSettings().value("network/stun").toString(), "opendns");  // Loading writes nothing.
  SaveNetworkSettings(LoadNetworkSettings());
  EXPECT_EQ(QSettings().value("network/stun").toString(), "cloudflare");
  LoadNetworkSettings();
  EXPECT_EQ(Count(Log(), "unknown STUN choice"), 3u) << Log();
}

TEST_F(NetworkStore, WithoutASecretStoreThePasswordIsNotKeptAndReadsEmpty) {
  SaveNetworkSettings({"", "none", "", "turn:relay.example", "bob", "hunter2"});
  EXPECT_TRUE(QSettings().value("network/turnCredential").toByteArray().isEmpty());
  const NetworkSettings loaded = LoadNetworkSettings();
  EXPECT_TRUE(loaded.turn_credential.empty());
  EXPECT_EQ(loaded.turn_user, "bob");
  EXPECT_NE(Log().find("the TURN password was not kept"), std::string::npos) << Log();
  EXPECT_EQ(Log().find("hunter2"), std::string::npos);
}

TEST_F(NetworkStore, AnotherPlatformsProtectedFormReadsEmpty) {
  Store("network/turnCredential", QByteArray("\x01\x00\x00\x00\xd0\x8c\x9d\xdf", 8));
  EXPECT_TRUE(LoadNetworkSettings().turn_credential.empty());
  EXPECT_TRUE(UnprotectCredential({}).empty());
  EXPECT_TRUE(ProtectCredential("").isEmpty());
}

}  // namespace
}  // namespace mirell::settings
