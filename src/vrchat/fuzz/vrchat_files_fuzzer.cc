// What VRChat and Wine write and we read: a registry text (user.reg) and a log line's account.
// The first byte chooses which; neither may crash, and what they return must keep their rules.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirell/vrchat/vrchat_identity.h"
#include "mirell/vrchat/vrchat_settings.h"
#include "wine_registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 2 == 0) {
    const auto values = mirell::vrchat::ReadWineRegistryKey(text, "Software\\VRChat\\VRChat");
    const auto decided = mirell::vrchat::UntrustedUrlsFromKey(values);
    if (!values && decided != mirell::vrchat::UntrustedUrls::kUnknown) std::abort();
  } else if (const auto account = mirell::vrchat::ParseAuthenticatedAccount(text)) {
    if (!mirell::vrchat::IsVRChatUserId(account->user_id)) std::abort();
    if (account->display_name.size() + account->user_id.size() + 3 > text.size()) std::abort();
  }
  return 0;
}
