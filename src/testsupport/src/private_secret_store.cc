#include "mirell/testsupport/private_secret_store.h"

#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace mirell::testsupport {
namespace {

bool SecretServiceOnBus(const std::map<std::string, std::optional<std::string>>& environment) {
  ProcessOptions options;
  options.environment = environment;
  options.timeout = std::chrono::seconds(5);
  const ProcessResult result = RunProcess(
      {"dbus-send", "--session", "--dest=org.freedesktop.DBus", "--print-reply",
       "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner",
       "string:org.freedesktop.secrets"},
      options);
  return result.exit_code == 0 && result.out.find("boolean true") != std::string::npos;
}

}  // namespace

PrivateSecretStore::PrivateSecretStore() : home_(dir_.path() / "home") {
  const std::filesystem::path runtime = dir_.path() / "runtime";
  std::filesystem::create_directories(home_);
  std::filesystem::create_directories(runtime);
  ::chmod(runtime.c_str(), 0700);
  const std::filesystem::path socket = runtime / "bus";
  environment_ = NoSecretStoreEnvironment(home_);
  environment_["XDG_RUNTIME_DIR"] = runtime.string();
  environment_["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + socket.string();

  ProcessOptions options;
  options.environment = environment_;
  bus_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                               "--address=unix:path=" + socket.string()},
      options);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!std::filesystem::exists(socket)) {
    if (std::chrono::steady_clock::now() > deadline || !bus_->Running()) {
      throw std::runtime_error("the private session bus did not start");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // The keyring's password comes on its standard input, which must be the daemon's own.
  const std::filesystem::path password = dir_.path() / "keyring-password";
  std::ofstream(password) << "keyring-password-of-the-test\n";
  keyring_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"sh", "-c",
                               "exec gnome-keyring-daemon --foreground --unlock "
                               "--components=secrets < \"$0\"",
                               password.string()},
      options);
  while (!SecretServiceOnBus(environment_)) {
    if (std::chrono::steady_clock::now() > deadline || !keyring_->Running()) {
      throw std::runtime_error("the keyring did not come up on the private bus");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

PrivateSecretStore::~PrivateSecretStore() {
  keyring_.reset();
  bus_.reset();
}

void PrivateSecretStore::Lock() const {
  ProcessOptions options;
  options.environment = environment_;
  options.timeout = std::chrono::seconds(5);
  const ProcessResult result = RunProcess(
      {"dbus-send", "--session", "--dest=org.freedesktop.secrets", "--print-reply",
       "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.Lock",
       "array:objpath:/org/freedesktop/secrets/collection/login"},
      options);
  if (result.exit_code != 0) throw std::runtime_error("could not lock the keyring: " + result.err);
}

std::map<std::string, std::optional<std::string>> NoSecretStoreEnvironment(
    const std::filesystem::path& home) {
  return {{"HOME", home.string()},
          {"XDG_CONFIG_HOME", (home / ".config").string()},
          {"XDG_DATA_HOME", (home / ".local/share").string()},
          {"DBUS_SESSION_BUS_ADDRESS", std::nullopt},
          {"DISPLAY", std::nullopt},
          {"WAYLAND_DISPLAY", std::nullopt},
          {"XDG_RUNTIME_DIR", std::nullopt}};
}

}  // namespace mirell::testsupport
