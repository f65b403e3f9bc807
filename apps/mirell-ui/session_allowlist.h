// The stored allowlist as the share's door takes it.
#pragma once

#include <vector>

#include "mirell/session/admission.h"
#include "mirell/settings/allowlist.h"

namespace mirell::ui {

// With duplicate ids the first entry's name stays and the keys of all are kept.
session::Allowlist SessionAllowlistOf(const std::vector<settings::AllowlistEntry>& entries);

}  // namespace mirell::ui
