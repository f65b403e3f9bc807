// Linux: the identity key in the Secret Service (libsecret), else in a 0600 file.
#include <fcntl.h>
#include <libsecret/secret.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

#include "mirell/base/logging.h"
#include "mirell/settings/identity_key_store.h"
#include "secret_service_deadline.h"

namespace mirell::settings {
namespace {

constexpr const char* kKindAttribute = "kind";
constexpr const char* kKind = "identity-key";
constexpr const char* kLabel = "Mirell identity key";
constexpr auto kReadLimit = std::chrono::seconds(5);
constexpr auto kStoreLimit = std::chrono::seconds(30);

const SecretSchema* Schema() {
  static const SecretSchema schema = [] {
    SecretSchema made;
    std::memset(&made, 0, sizeof made);
    made.name = "app.mirell.IdentityKey";
    made.flags = SECRET_SCHEMA_NONE;
    made.attributes[0].name = kKindAttribute;
    made.attributes[0].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
    return made;
  }();
  return &schema;
}

// Whether the store answered, and what it holds ("" for nothing).
struct StoreRead {
  bool reachable = false;
  std::string text;
};

StoreRead ReadFromStore() {
  Deadline deadline(kReadLimit);
  GError* error = nullptr;
  // Unlocking may prompt: the key is needed, and a person can answer a prompt at start-up.
  gchar* text = secret_password_lookup_sync(Schema(), deadline.cancellable(), &error,
                                            kKindAttribute, kKind, nullptr);
  StoreRead read;
  if (error != nullptr) {
    LOG_DEBUG("the secret store could not be read: {}", error->message);
    g_error_free(error);
    return read;
  }
  read.reachable = true;
  if (text != nullptr) {
    read.text = text;
    secret_password_free(text);
  }
  return read;
}

bool WriteToStore(const std::string& text) {
  Deadline deadline(kStoreLimit);
  GError* error = nullptr;
  const gboolean stored =
      secret_password_store_sync(Schema(), SECRET_COLLECTION_DEFAULT, kLabel, text.c_str(),
                                 deadline.cancellable(), &error, kKindAttribute, kKind, nullptr);
  if (error != nullptr) {
    LOG_DEBUG("the secret store could not keep the key: {}", error->message);
    g_error_free(error);
  }
  return stored != FALSE;
}

std::optional<std::string> ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::string text;
  std::getline(in, text);
  return text;
}

// Created 0600 (never readable by others, not even for a moment), replaced whole.
bool WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  const std::filesystem::path partial = path.string() + ".new";
  const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::string line = text + "\n";
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                       ::fchmod(fd, 0600) == 0 && ::fsync(fd) == 0;
  ::close(fd);
  if (!written || ::rename(partial.c_str(), path.c_str()) != 0) {
    std::filesystem::remove(partial, ignored);
    return false;
  }
  return true;
}

std::shared_ptr<const transport::IdentityKey> Shared(transport::IdentityKey key) {
  return std::make_shared<const transport::IdentityKey>(std::move(key));
}

}  // namespace

std::filesystem::path IdentityKeyFile() {
  const char* data = std::getenv("XDG_DATA_HOME");
  std::filesystem::path base;
  if (data != nullptr && data[0] == '/') {
    base = data;
  } else {
    const char* home = std::getenv("HOME");
    base = std::filesystem::path(home != nullptr ? home : "/") / ".local/share";
  }
  return base / "mirell" / "identity-key";
}

std::shared_ptr<const transport::IdentityKey> LoadIdentityKey() {
  const StoreRead stored = ReadFromStore();
  if (!stored.text.empty()) {
    if (auto key = transport::IdentityKey::FromPrivateText(stored.text)) return Shared(std::move(*key));
    LOG_WARN("the identity key in the secret store is damaged; a new one is made");
  }
  const std::filesystem::path file = IdentityKeyFile();
  if (const auto text = ReadFile(file)) {
    if (auto key = transport::IdentityKey::FromPrivateText(*text)) {
      LOG_WARN("the identity key is kept in {}, not in a secret store", file.string());
      return Shared(std::move(*key));
    }
    LOG_WARN("the identity key in {} is damaged; a new one is made", file.string());
  }
  transport::IdentityKey made = transport::IdentityKey::Generate();
  if (stored.reachable && WriteToStore(made.PrivateText())) {
    LOG_INFO("a new identity key was made and kept in the secret store");
    return Shared(std::move(made));
  }
  if (WriteFile(file, made.PrivateText())) {
    LOG_WARN("no secret store could keep the identity key: it is kept in {} (readable by this "
             "account only)", file.string());
  } else {
    LOG_WARN("the identity key could be kept nowhere: hosts will see this computer as new after "
             "a restart");
  }
  return Shared(std::move(made));
}

}  // namespace mirell::settings
