// The key pair that tells one Mirell installation from another: Ed25519, made once, kept by the
// settings' secret store. A viewer signs with it to show that it is the computer a host let in
// before; a VRChat id on its own is only a claim, since anyone can read and send it.
//
// Texts: keys and signatures travel as standard base64 of their raw bytes (32-byte keys, 64-byte
// signatures); a key's fingerprint is "SHA256:" and the base64 of the SHA-256 of its raw public
// key, without padding, as a person may compare it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mirell::transport {

class IdentityKey {
 public:
  // A new pair from the system's random source; fails a check when none can be made.
  static IdentityKey Generate();
  // The pair whose private key PrivateText gave; nullopt for text that is no such key.
  static std::optional<IdentityKey> FromPrivateText(std::string_view text);

  IdentityKey(IdentityKey&&) noexcept;
  IdentityKey& operator=(IdentityKey&&) noexcept;
  ~IdentityKey();

  // Secret: for the key's store only, never logged or sent.
  std::string PrivateText() const;
  std::string PublicText() const;
  std::string Sign(std::string_view message) const;

 private:
  struct Pair;
  explicit IdentityKey(std::unique_ptr<Pair> pair);
  std::unique_ptr<Pair> pair_;
};

// False for a key or signature that is not well formed, and for a signature that does not fit.
bool VerifySignature(std::string_view public_text, std::string_view message,
                     std::string_view signature_text);
// "" for text that is no public key.
std::string KeyFingerprint(std::string_view public_text);

}  // namespace mirell::transport
