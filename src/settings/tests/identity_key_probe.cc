// This installation's identity key as mirell-ui loads it at start, from the command line, so that
// tests can run the store in environments of their own. Prints the key's fingerprint.
#include <cstdio>

#include "mirell/settings/identity_key_store.h"

int main() {
  const auto key = mirell::settings::LoadIdentityKey();
  std::printf("%s\n", mirell::transport::KeyFingerprint(key->PublicText()).c_str());
  return 0;
}
