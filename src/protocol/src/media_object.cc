#include "media_object.h"

#include <algorithm>
#include <cstdint>

#include "mirell/protocol/message_names.h"

namespace mirell::protocol {
namespace {

namespace mf = media_field;

constexpr const char* kNumberFields[] = {mf::kWidth,      mf::kHeight,   mf::kFps,      mf::kVideoKbps,
                                         mf::kSampleRate, mf::kChannels, mf::kAudioKbps};
constexpr std::size_t kMaxKeptConfigText = 64;

// An unsigned integer in [low, high], else 0 ("not said").
std::uint32_t NumberOf(const Json& object, const char* key, std::uint64_t low, std::uint64_t high) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_unsigned()) return 0;
  const std::uint64_t value = found->get<std::uint64_t>();
  return value >= low && value <= high ? static_cast<std::uint32_t>(value) : 0;
}

// An AudioSpecificConfig is a few bytes; anything but an even run of hexadecimal digits of that
// size is not one.
bool IsAudioConfigText(const std::string& text) {
  if (text.size() < 4 || text.size() > 32 || text.size() % 2 != 0) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
}

}  // namespace

Json MediaObjectOf(const StreamMedia& media) {
  Json object = {{mf::kWidth, media.width},           {mf::kHeight, media.height},
                 {mf::kFps, media.fps},               {mf::kVideoKbps, media.video_kbps},
                 {mf::kSampleRate, media.sample_rate}, {mf::kChannels, media.channels},
                 {mf::kAudioKbps, media.audio_kbps}};
  if (!media.audio_config.empty()) object[mf::kAudioConfig] = media.audio_config;
  return object;
}

Json KnownMediaFields(const Json& media) {
  Json known = Json::object();
  for (const char* key : kNumberFields) {
    const auto found = media.find(key);
    if (found != media.end() && found->is_number_unsigned() && found->get<std::uint64_t>() <= 0xFFFF'FFFFu) {
      known[key] = found->get<std::uint64_t>();
    }
  }
  const auto config = media.find(mf::kAudioConfig);
  if (config != media.end() && config->is_string() &&
      config->get_ref<const std::string&>().size() <= kMaxKeptConfigText) {
    known[mf::kAudioConfig] = *config;
  }
  return known;
}

StreamMedia BelievedMedia(const Json& media) {
  StreamMedia believed;
  believed.width = NumberOf(media, mf::kWidth, 16, 8192);
  believed.height = NumberOf(media, mf::kHeight, 16, 8192);
  believed.fps = NumberOf(media, mf::kFps, 1, 240);
  believed.video_kbps = NumberOf(media, mf::kVideoKbps, 1, 200'000);
  believed.sample_rate = NumberOf(media, mf::kSampleRate, 8000, 96'000);
  believed.channels = NumberOf(media, mf::kChannels, 1, 2);
  believed.audio_kbps = NumberOf(media, mf::kAudioKbps, 1, 1024);
  const auto config = media.find(mf::kAudioConfig);
  if (config != media.end() && config->is_string() && IsAudioConfigText(config->get<std::string>())) {
    believed.audio_config = config->get<std::string>();
  }
  return believed;
}

}  // namespace mirell::protocol
