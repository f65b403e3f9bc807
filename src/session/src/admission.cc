#include "mirell/session/admission.h"

#include <algorithm>

namespace mirell::session {

AdmissionVerdict Decide(const Allowlist& allowlist, const ViewerClaim& claim) {
  if (claim.user_id.empty()) return AdmissionVerdict::kAsk;
  const auto entry = allowlist.find(claim.user_id);
  if (entry == allowlist.end()) return AdmissionVerdict::kAsk;
  if (entry->second.by_claim_only) return AdmissionVerdict::kLetInByClaim;
  if (claim.key_fingerprint.empty()) return AdmissionVerdict::kAsk;
  const auto& known = entry->second.key_fingerprints;
  if (std::find(known.begin(), known.end(), claim.key_fingerprint) != known.end()) {
    return AdmissionVerdict::kLetIn;
  }
  // An entry from before keys were checked has none: its first proved visit is asked about,
  // and the answer binds the key.
  return known.empty() ? AdmissionVerdict::kAsk : AdmissionVerdict::kAskOtherComputer;
}

}  // namespace mirell::session
