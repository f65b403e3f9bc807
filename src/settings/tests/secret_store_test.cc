// The relay password in a real secret store: GNOME Keyring on a private session bus, each
// program run a process of its own (a restart), as mirell-ui stores and reads its settings.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "mirell/testsupport/private_secret_store.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {
namespace {

using Environment = std::map<std::string, std::optional<std::string>>;

struct Loaded {
  std::vector<std::string> fields;  // stun, custom, turn url, turn user, password
  double seconds = 0;
};

ProcessResult RunProbe(const Environment& environment, const std::vector<std::string>& arguments) {
  std::vector<std::string> argv{MIRELL_NETWORK_SETTINGS_PROBE};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ProcessOptions options;
  options.environment = environment;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.timeout = std::chrono::seconds(60);
  return RunProcess(argv, options);
}

void Save(const Environment& environment, const std::string& password,
          const std::string& turn_url = "turn:relay.example:3478") {
  const ProcessResult result =
      RunProbe(environment, {"save", "none", "", turn_url, "bob", password});
  ASSERT_EQ(result.exit_code, 0) << result.err;
}

Loaded Load(const Environment& environment) {
  const auto start = std::chrono::steady_clock::now();
  const ProcessResult result = RunProbe(environment, {"load"});
  Loaded loaded;
  loaded.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(result.exit_code, 0) << result.err;
  std::size_t at = 0;
  while ((at = result.out.find('[', at)) != std::string::npos) {
    const std::size_t end = result.out.find("]\n", at);
    if (end == std::string::npos) break;
    loaded.fields.push_back(result.out.substr(at + 1, end - at - 1));
    at = end + 2;
  }
  EXPECT_EQ(loaded.fields.size(), 5u) << result.out;
  loaded.fields.resize(5);
  return loaded;
}

std::string SettingsFile(const std::filesystem::path& home) {
  return ReadFileText(home / ".config/Mirell/Mirell.conf");
}

// How many items of ours the keyring holds, asked over D-Bus.
std::size_t StoredItems(const PrivateSecretStore& store) {
  ProcessOptions options;
  options.environment = store.Environment();
  const ProcessResult result = RunProcess(
      {"dbus-send", "--session", "--dest=org.freedesktop.secrets", "--print-reply",
       "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.SearchItems",
       "dict:string:string:xdg:schema,app.mirell.TurnCredential"},
      options);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  std::size_t count = 0;
  for (std::size_t at = result.out.find("object path \"/org/freedesktop/secrets/collection");
       at != std::string::npos;
       at = result.out.find("object path \"/org/freedesktop/secrets/collection", at + 1)) {
    ++count;
  }
  return count;
}

class SecretStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dbus-daemon", "dbus-send", "gnome-keyring-daemon"}) {
      if (!HaveProgram(program)) GTEST_SKIP() << "needs " << program;
    }
  }
};

TEST_F(SecretStoreTest, ThePasswordSurvivesARestartAndNeverReachesTheSettingsFile) {
  PrivateSecretStore store;
  Save(store.Environment(), "correct horse battery ");  // A trailing blank belongs to it.
  const Loaded loaded = Load(store.Environment());
  EXPECT_EQ(loaded.fields[2], "turn:relay.example:3478");
  EXPECT_EQ(loaded.fields[3], "bob");
  EXPECT_EQ(loaded.fields[4], "correct horse battery ");
  const std::string settings = SettingsFile(store.home());
  EXPECT_NE(settings.find("turnUrl=turn:relay.example:3478"), std::string::npos) << settings;
  EXPECT_EQ(settings.find("correct horse"), std::string::npos) << settings;
  EXPECT_EQ(settings.find("battery"), std::string::npos) << settings;
  EXPECT_EQ(StoredItems(store), 1u);
}

TEST_F(SecretStoreTest, SavingAgainKeepsOnlyTheNewPasswordAndEmptyRemovesIt) {
  PrivateSecretStore store;
  Save(store.Environment(), "first");
  Save(store.Environment(), "second");
  EXPECT_EQ(Load(store.Environment()).fields[4], "second");
  EXPECT_EQ(StoredItems(store), 1u);
  Save(store.Environment(), "");
  EXPECT_EQ(Load(store.Environment()).fields[4], "");
  EXPECT_EQ(StoredItems(store), 0u);
}

TEST_F(SecretStoreTest, ALockedStoreReadsAnEmptyPasswordWithoutWaiting) {
  PrivateSecretStore store;
  Save(store.Environment(), "hunter2");
  store.Lock();
  const Loaded loaded = Load(store.Environment());
  EXPECT_EQ(loaded.fields[4], "");
  EXPECT_EQ(loaded.fields[3], "bob");
  EXPECT_LT(loaded.seconds, 5.0);
}

TEST_F(SecretStoreTest, WithNoSecretStoreThePasswordReadsEmptyAndNothingCrashes) {
  TempDir home;
  const Environment none = NoSecretStoreEnvironment(home.path());
  Save(none, "hunter2");
  const Loaded loaded = Load(none);
  EXPECT_EQ(loaded.fields[2], "turn:relay.example:3478");
  EXPECT_EQ(loaded.fields[4], "");
  EXPECT_LT(loaded.seconds, 5.0);
  EXPECT_EQ(SettingsFile(home.path()).find("hunter2"), std::string::npos);
}

TEST_F(SecretStoreTest, SettingsCopiedToAnotherAccountReadAnEmptyPassword) {
  PrivateSecretStore mine;
  PrivateSecretStore theirs;
  Save(mine.Environment(), "hunter2");
  Save(theirs.Environment(), "their own password", "turn:theirs.example");
  std::filesystem::copy_file(mine.home() / ".config/Mirell/Mirell.conf",
                             theirs.home() / ".config/Mirell/Mirell.conf",
                             std::filesystem::copy_options::overwrite_existing);
  const Loaded loaded = Load(theirs.Environment());
  EXPECT_EQ(loaded.fields[2], "turn:relay.example:3478");
  EXPECT_EQ(loaded.fields[4], "");
  EXPECT_EQ(Load(mine.Environment()).fields[4], "hunter2");
}

}  // namespace
}  // namespace mirell::testsupport
