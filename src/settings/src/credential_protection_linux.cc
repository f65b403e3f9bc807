// Linux: the relay password lives in the desktop's secret store (the Secret Service, through
// libsecret: GNOME Keyring, KeePassXC, KWallet's bridge...). The settings keep "secret-service:"
// and a random id that names the store's item, so a settings file copied to another account or
// machine finds nothing there and reads an empty password. Every call is bounded: a store that
// hangs (or waits on a prompt nobody answers) ends in an empty result, never a frozen window.
#include <libsecret/secret.h>

#include <chrono>
#include <cstring>
#include <random>

#include "mirell/base/logging.h"
#include "mirell/settings/network_settings.h"
#include "secret_service_deadline.h"

namespace mirell::settings {
namespace {

constexpr std::string_view kReferencePrefix = "secret-service:";
constexpr const char* kIdAttribute = "credential";
constexpr const char* kLabel = "Mirell TURN credential";
// Reading must not delay start-up for long; a store may show an unlock prompt, which a person
// needs time to answer.
constexpr auto kReadLimit = std::chrono::seconds(5);
constexpr auto kStoreLimit = std::chrono::seconds(30);

const SecretSchema* Schema() {
  static const SecretSchema schema = [] {
    SecretSchema made;
    std::memset(&made, 0, sizeof made);
    made.name = "app.mirell.TurnCredential";
    made.flags = SECRET_SCHEMA_NONE;
    made.attributes[0].name = kIdAttribute;
    made.attributes[0].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
    return made;
  }();
  return &schema;
}

std::string NewId() {
  std::random_device random;
  std::string id;
  for (int i = 0; i < 4; ++i) {
    constexpr const char* kHex = "0123456789abcdef";
    std::uint32_t word = random();
    for (int nibble = 0; nibble < 8; ++nibble, word >>= 4) id += kHex[word & 0xf];
  }
  return id;
}

void LogFailure(const char* what, GError* error) {
  if (error == nullptr) return;
  LOG_WARN("the TURN password was not {}: {}", what, error->message);
  g_error_free(error);
}

// Every item of ours goes: one password is kept at a time.
void ClearStoredPasswords() {
  Deadline deadline(kReadLimit);
  GError* error = nullptr;
  GHashTable* any = g_hash_table_new(g_str_hash, g_str_equal);
  secret_password_clearv_sync(Schema(), any, deadline.cancellable(), &error);
  g_hash_table_unref(any);
  if (error != nullptr) {
    LOG_DEBUG("could not clear the stored TURN password: {}", error->message);
    g_error_free(error);
  }
}

}  // namespace

QByteArray ProtectCredential(const std::string& plain) {
  ClearStoredPasswords();
  if (plain.empty()) return {};
  const std::string id = NewId();
  Deadline deadline(kStoreLimit);
  GError* error = nullptr;
  const gboolean stored =
      secret_password_store_sync(Schema(), SECRET_COLLECTION_DEFAULT, kLabel, plain.c_str(),
                                 deadline.cancellable(), &error, kIdAttribute, id.c_str(), nullptr);
  if (!stored) {
    LogFailure("kept", error);
    return {};
  }
  const std::string reference = std::string(kReferencePrefix) + id;
  return QByteArray(reference.data(), static_cast<qsizetype>(reference.size()));
}

std::string UnprotectCredential(const QByteArray& stored) {
  if (stored.isEmpty()) return {};
  const std::string reference = stored.toStdString();
  if (reference.rfind(kReferencePrefix, 0) != 0) return {};  // Another platform's form.
  const std::string id = reference.substr(kReferencePrefix.size());

  Deadline deadline(kReadLimit);
  GError* error = nullptr;
  GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
  g_hash_table_insert(attributes, const_cast<char*>(kIdAttribute), const_cast<char*>(id.c_str()));
  // Without SECRET_SEARCH_UNLOCK: a locked store reads as empty instead of prompting at start-up.
  GList* items = secret_service_search_sync(nullptr, Schema(), attributes,
                                            SECRET_SEARCH_LOAD_SECRETS, deadline.cancellable(),
                                            &error);
  g_hash_table_unref(attributes);
  if (error != nullptr) {
    LogFailure("read", error);
    return {};
  }
  std::string plain;
  for (GList* at = items; at != nullptr; at = at->next) {
    SecretValue* value = secret_item_get_secret(static_cast<SecretItem*>(at->data));
    if (value == nullptr) continue;  // Locked.
    if (const gchar* text = secret_value_get_text(value); text != nullptr && plain.empty()) {
      plain = text;
    }
    secret_value_unref(value);
  }
  g_list_free_full(items, g_object_unref);
  if (plain.empty()) LOG_DEBUG("no TURN password in the secret store for this reference");
  return plain;
}

}  // namespace mirell::settings
