// OpenSSL: Ed25519 through the EVP interface, base64 and SHA-256 from libcrypto.
#include <openssl/evp.h>

#include <array>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/transport/identity_key.h"

namespace mirell::transport {
namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kSignatureBytes = 64;

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

struct MdContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using MdContext = std::unique_ptr<EVP_MD_CTX, MdContextFree>;

std::string Base64(const unsigned char* data, std::size_t size, bool padded = true) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data,
                                      static_cast<int>(size));
  text.resize(static_cast<std::size_t>(written));
  if (!padded) {
    while (!text.empty() && text.back() == '=') text.pop_back();
  }
  return text;
}

// Exactly `size` bytes from padded base64, else nullopt.
std::optional<std::vector<unsigned char>> FromBase64(std::string_view text, std::size_t size) {
  const std::size_t expected = 4 * ((size + 2) / 3);
  if (text.size() != expected) return std::nullopt;
  std::vector<unsigned char> bytes(expected / 4 * 3);
  const int decoded = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
  if (decoded < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding's zero bytes; they must be just that.
  const std::size_t padding = text.size() - text.find_last_not_of('=') - 1;
  if (static_cast<std::size_t>(decoded) - padding != size) return std::nullopt;
  bytes.resize(size);
  // Text that decodes but is not the one encoding of these bytes (stray bits in the last
  // character) is not the same key.
  if (Base64(bytes.data(), bytes.size()) != text) return std::nullopt;
  return bytes;
}

Pkey PublicKeyOf(std::string_view public_text) {
  const auto raw = FromBase64(public_text, kKeyBytes);
  if (!raw) return nullptr;
  return Pkey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw->data(), raw->size()));
}

}  // namespace

struct IdentityKey::Pair {
  Pkey key;
};

IdentityKey::IdentityKey(std::unique_ptr<Pair> pair) : pair_(std::move(pair)) {}
IdentityKey::IdentityKey(IdentityKey&&) noexcept = default;
IdentityKey& IdentityKey::operator=(IdentityKey&&) noexcept = default;
IdentityKey::~IdentityKey() = default;

IdentityKey IdentityKey::Generate() {
  auto pair = std::make_unique<Pair>();
  pair->key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  MIRELL_CHECK(pair->key != nullptr, "no Ed25519 key could be made");
  return IdentityKey(std::move(pair));
}

std::optional<IdentityKey> IdentityKey::FromPrivateText(std::string_view text) {
  const auto raw = FromBase64(text, kKeyBytes);
  if (!raw) return std::nullopt;
  auto pair = std::make_unique<Pair>();
  pair->key.reset(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, raw->data(), raw->size()));
  if (!pair->key) return std::nullopt;
  return IdentityKey(std::move(pair));
}

std::string IdentityKey::PrivateText() const {
  std::array<unsigned char, kKeyBytes> raw{};
  std::size_t size = raw.size();
  MIRELL_CHECK(EVP_PKEY_get_raw_private_key(pair_->key.get(), raw.data(), &size) == 1 &&
                   size == raw.size(),
               "the private key could not be read");
  return Base64(raw.data(), raw.size());
}

std::string IdentityKey::PublicText() const {
  std::array<unsigned char, kKeyBytes> raw{};
  std::size_t size = raw.size();
  MIRELL_CHECK(EVP_PKEY_get_raw_public_key(pair_->key.get(), raw.data(), &size) == 1 &&
                   size == raw.size(),
               "the public key could not be read");
  return Base64(raw.data(), raw.size());
}

std::string IdentityKey::Sign(std::string_view message) const {
  MdContext context(EVP_MD_CTX_new());
  std::array<unsigned char, kSignatureBytes> signature{};
  std::size_t size = signature.size();
  // Ed25519 hashes the message itself: no digest is named.
  MIRELL_CHECK(context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, pair_->key.get()) == 1 &&
                   EVP_DigestSign(context.get(), signature.data(), &size,
                                  reinterpret_cast<const unsigned char*>(message.data()),
                                  message.size()) == 1 &&
                   size == signature.size(),
               "signing failed");
  return Base64(signature.data(), signature.size());
}

bool VerifySignature(std::string_view public_text, std::string_view message,
                     std::string_view signature_text) {
  const Pkey key = PublicKeyOf(public_text);
  const auto signature = FromBase64(signature_text, kSignatureBytes);
  if (!key || !signature) return false;
  MdContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) {
    return false;
  }
  return EVP_DigestVerify(context.get(), signature->data(), signature->size(),
                          reinterpret_cast<const unsigned char*>(message.data()),
                          message.size()) == 1;
}

std::string KeyFingerprint(std::string_view public_text) {
  const auto raw = FromBase64(public_text, kKeyBytes);
  if (!raw || !PublicKeyOf(public_text)) return {};
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  MIRELL_CHECK(EVP_Digest(raw->data(), raw->size(), digest.data(), &size, EVP_sha256(), nullptr) == 1,
               "SHA-256 failed");
  return "SHA256:" + Base64(digest.data(), size, false);
}

}  // namespace mirell::transport
