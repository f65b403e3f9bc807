// The identity key kept across restarts: in a real secret store (GNOME Keyring on a private
// session bus), and in a file only the account can read where no store answers. Each load is a
// process of its own, as each start of mirell-ui is.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "mirell/testsupport/private_secret_store.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {
namespace {

using Environment = std::map<std::string, std::optional<std::string>>;

std::string LoadFingerprint(const Environment& environment) {
  ProcessOptions options;
  options.environment = environment;
  options.timeout = std::chrono::seconds(60);
  const ProcessResult result = RunProcess({MIRELL_IDENTITY_KEY_PROBE}, options);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  std::string fingerprint = result.out;
  while (!fingerprint.empty() && fingerprint.back() == '\n') fingerprint.pop_back();
  EXPECT_EQ(fingerprint.rfind("SHA256:", 0), 0u) << result.out << result.err;
  return fingerprint;
}

std::size_t StoredKeys(const PrivateSecretStore& store) {
  ProcessOptions options;
  options.environment = store.Environment();
  const ProcessResult result = RunProcess(
      {"dbus-send", "--session", "--dest=org.freedesktop.secrets", "--print-reply",
       "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.SearchItems",
       "dict:string:string:xdg:schema,app.mirell.IdentityKey"},
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

class IdentityKeyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dbus-daemon", "dbus-send", "gnome-keyring-daemon"}) {
      if (!HaveProgram(program)) GTEST_SKIP() << "needs " << program;
    }
  }
};

TEST_F(IdentityKeyStoreTest, TheKeyIsMadeOnceKeptInTheSecretStoreAndTheSameAfterARestart) {
  PrivateSecretStore store;
  const std::string first = LoadFingerprint(store.Environment());
  EXPECT_EQ(LoadFingerprint(store.Environment()), first);
  EXPECT_EQ(StoredKeys(store), 1u);
  EXPECT_FALSE(std::filesystem::exists(store.home() / ".local/share/mirell/identity-key"));

  PrivateSecretStore another_account;
  EXPECT_NE(LoadFingerprint(another_account.Environment()), first);
}

TEST_F(IdentityKeyStoreTest, WithoutASecretStoreTheKeyIsKeptInAFileOnlyTheAccountCanRead) {
  TempDir home;
  Environment environment = NoSecretStoreEnvironment(home.path());
  environment["XDG_DATA_HOME"] = (home.path() / "data").string();
  const std::string first = LoadFingerprint(environment);
  const std::filesystem::path file = home.path() / "data/mirell/identity-key";
  ASSERT_TRUE(std::filesystem::exists(file));
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(LoadFingerprint(environment), first);

  // A damaged file gives a new key, kept in its place.
  { std::ofstream(file) << "not a key\n"; }
  const std::string replaced = LoadFingerprint(environment);
  EXPECT_NE(replaced, first);
  EXPECT_EQ(LoadFingerprint(environment), replaced);
}

}  // namespace
}  // namespace mirell::testsupport
