// Who gets into a share unasked. A VRChat id is only a claim (ids are public); what a viewer can
// prove is its Mirell key. So an allowlist entry lets a viewer in unasked only when the viewer
// proved a key that was let in under that id before (trust on first use): a first visit, a claim
// without a proof and a known id from another computer are all asked about. Entries given for
// one run on the command line are the exception, and say so: they go by the claimed id only.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace mirell::session {

struct AllowedViewer {
  std::string name;                           // May be empty.
  std::vector<std::string> key_fingerprints;  // The computers let in under this id before.
  bool by_claim_only = false;                 // Lets in whoever names the id.
};

// VRChat user id to entry.
using Allowlist = std::map<std::string, AllowedViewer>;

// What a viewer showed: its claimed id and, when it proved a key, that key's fingerprint.
struct ViewerClaim {
  std::string user_id;
  std::string key_fingerprint;  // Empty: nothing proved.
};

enum class AdmissionVerdict {
  kLetIn,             // A key let in under this id before, proved again.
  kLetInByClaim,      // A command-line entry, which trusts the claim.
  kAsk,               // Not on the list, or nothing proved, or never seen with a key.
  kAskOtherComputer,  // The id is on the list with other keys: someone else may be using it.
};

AdmissionVerdict Decide(const Allowlist& allowlist, const ViewerClaim& claim);

}  // namespace mirell::session
