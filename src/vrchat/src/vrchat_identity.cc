#include "mirell/vrchat/vrchat_identity.h"

#include <cctype>
#include <fstream>
#include <mutex>
#include <system_error>

#include "mirell/base/logging.h"
#include "mirell/vrchat/vrchat_paths.h"

namespace mirell::vrchat {
namespace {

constexpr std::string_view kAuthenticated = "User Authenticated: ";
constexpr std::size_t kReadBlock = 65536;
// A line without end must not grow without limit.
constexpr std::size_t kCarryLimit = 0x100000;

bool IsHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool IsCurrentUserId(std::string_view id) {
  if (id.size() != 40 || id.substr(0, 4) != "usr_") return false;
  const std::string_view uuid = id.substr(4);
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    const bool dash_place = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash_place ? uuid[i] != '-' : !IsHexDigit(uuid[i])) return false;
  }
  return true;
}

bool IsOlderUserId(std::string_view id) {
  if (id.size() < 6 || id.size() > 20) return false;
  for (const char c : id) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) return false;
  }
  return true;
}

bool IsLogName(const std::string& name) {
  return name.size() >= 11 && name.rfind("output_log_", 0) == 0 && name.compare(name.size() - 4, 4, ".txt") == 0;
}

}  // namespace

bool IsVRChatUserId(std::string_view id) { return IsCurrentUserId(id) || IsOlderUserId(id); }

std::optional<VRChatIdentity> ParseAuthenticatedAccount(std::string_view rest) {
  const std::size_t end = rest.find_last_not_of(" \t\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  rest = rest.substr(0, end + 1);
  if (rest.size() < 2 || rest.back() != ')') return std::nullopt;
  const std::size_t open = rest.rfind(" (");
  if (open == std::string_view::npos) return std::nullopt;
  const std::string_view id = rest.substr(open + 2, rest.size() - 1 - (open + 2));
  if (!IsVRChatUserId(id)) return std::nullopt;
  return VRChatIdentity{std::string(id), std::string(rest.substr(0, open))};
}

std::filesystem::path NewestVRChatLog(const std::filesystem::path& directory) {
  std::error_code error;
  if (directory.empty() || !std::filesystem::is_directory(directory, error)) return {};
  std::filesystem::path newest;
  std::filesystem::file_time_type newest_time{};
  // A directory that cannot be walked (being deleted, say) has no log this time; the heartbeat
  // that asks must not end in an exception.
  std::filesystem::directory_iterator entries(directory, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    const auto& entry = *entries;
    std::error_code entry_error;
    if (!entry.is_regular_file(entry_error) || !IsLogName(entry.path().filename().string())) continue;
    const auto time = entry.last_write_time(entry_error);
    if (entry_error) continue;
    if (newest.empty() || time > newest_time) {
      newest = entry.path();
      newest_time = time;
    }
  }
  return error ? std::filesystem::path() : newest;
}

struct VRChatIdentityWatcher::State {
  std::filesystem::path log_directory;
  bool default_directory = false;
  mutable std::mutex mutex;
  VRChatIdentity identity;
  std::filesystem::path current_log;
  std::uint64_t offset = 0;
  std::string carry;

  // Takes the complete lines out of `carry`; the last account line wins.
  void ConsumeLines() {
    std::size_t start = 0;
    for (std::size_t newline; (newline = carry.find('\n', start)) != std::string::npos; start = newline + 1) {
      const std::string_view line(carry.data() + start, newline - start);
      if (line.size() < kAuthenticated.size()) continue;
      const std::size_t at = line.find(kAuthenticated);
      if (at == std::string_view::npos) continue;
      if (auto account = ParseAuthenticatedAccount(line.substr(at + kAuthenticated.size()))) {
        identity = std::move(*account);
      }
    }
    carry.erase(0, start);
    if (carry.size() > kCarryLimit) carry.clear();
  }
};

VRChatIdentityWatcher::VRChatIdentityWatcher(std::filesystem::path log_directory)
    : state_(std::make_unique<State>()) {
  state_->default_directory = log_directory.empty();
  state_->log_directory = state_->default_directory ? DefaultVRChatDirectory() : std::move(log_directory);
}

VRChatIdentityWatcher::~VRChatIdentityWatcher() = default;
VRChatIdentityWatcher::VRChatIdentityWatcher(VRChatIdentityWatcher&&) noexcept = default;
VRChatIdentityWatcher& VRChatIdentityWatcher::operator=(VRChatIdentityWatcher&&) noexcept = default;

bool VRChatIdentityWatcher::Poll() {
  // Under Proton VRChat's folder appears only with its first run, maybe after ours began.
  if (state_->default_directory && state_->log_directory.empty()) state_->log_directory = DefaultVRChatDirectory();
  const std::filesystem::path newest = NewestVRChatLog(state_->log_directory);

  State& state = *state_;
  std::lock_guard lock(state.mutex);
  const VRChatIdentity before = state.identity;
  if (newest.empty()) return false;
  if (newest != state.current_log) {
    // VRChat started again; the old account stands until a new line replaces it.
    LOG_DEBUG("tailing {}", newest.filename().string());
    state.current_log = newest;
    state.offset = 0;
    state.carry.clear();
  }
  std::error_code error;
  const std::uint64_t size = std::filesystem::file_size(newest, error);
  if (error) return false;
  if (size < state.offset) {
    state.offset = 0;
    state.carry.clear();
  }
  if (size == state.offset) return false;
  std::ifstream file(newest, std::ios::binary);
  if (!file) {
    LOG_DEBUG("could not open {}", newest.filename().string());
    return false;
  }
  if (!file.seekg(static_cast<std::streamoff>(state.offset))) return false;
  std::string block(kReadBlock, '\0');
  while (true) {
    file.read(block.data(), static_cast<std::streamsize>(block.size()));
    const auto count = static_cast<std::size_t>(file.gcount());
    if (count == 0) break;
    state.offset += count;
    state.carry.append(block.data(), count);
    state.ConsumeLines();
  }
  if (state.identity.user_id == before.user_id && state.identity.display_name == before.display_name) return false;
  LOG_INFO("account name={}", state.identity.display_name);
  LOG_DEBUG("account id={}", state.identity.user_id);
  return true;
}

VRChatIdentity VRChatIdentityWatcher::Identity() const {
  std::lock_guard lock(state_->mutex);
  return state_->identity;
}

std::filesystem::path VRChatIdentityWatcher::CurrentLog() const {
  std::lock_guard lock(state_->mutex);
  return state_->current_log;
}

}  // namespace mirell::vrchat
