// This installation's identity key (mirell/transport/identity_key.h): made on the first start,
// then the same on every start. The private key is kept in the desktop's secret store; where no
// store can be reached, in a file only this account can read ($XDG_DATA_HOME/mirell/identity-key,
// mode 0600), with a warning in the log.
#pragma once

#include <filesystem>
#include <memory>

#include "mirell/transport/identity_key.h"

namespace mirell::settings {

// Never fails: a key that can be kept nowhere is made for this run only (and said so).
std::shared_ptr<const transport::IdentityKey> LoadIdentityKey();

// The fallback file's place: $XDG_DATA_HOME/mirell/identity-key, or ~/.local/share/... .
std::filesystem::path IdentityKeyFile();

}  // namespace mirell::settings
