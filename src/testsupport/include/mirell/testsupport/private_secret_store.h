// A desktop secret store of the test's own: a private D-Bus session bus with GNOME Keyring's
// secret service on it, its login keyring created and unlocked with a password, under a HOME and
// runtime directory of their own. Programs started with Environment() store and read there.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {

class PrivateSecretStore {
 public:
  // Throws std::runtime_error when the bus or the keyring does not come up within 10 s.
  PrivateSecretStore();
  ~PrivateSecretStore();

  // For a child: the bus, HOME and the runtime directory; no DISPLAY, so nothing can prompt.
  const std::map<std::string, std::optional<std::string>>& Environment() const {
    return environment_;
  }
  // Locks the login keyring, as a screen lock or a user would.
  void Lock() const;
  const std::filesystem::path& home() const { return home_; }

 private:
  TempDir dir_;
  std::filesystem::path home_;
  std::map<std::string, std::optional<std::string>> environment_;
  std::unique_ptr<ChildProcess> bus_;
  std::unique_ptr<ChildProcess> keyring_;
};

// The environment of a user session with no secret store at all: no session bus, no display.
std::map<std::string, std::optional<std::string>> NoSecretStoreEnvironment(
    const std::filesystem::path& home);

}  // namespace mirell::testsupport
