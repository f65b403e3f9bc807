#include "mirell/settings/quality.h"

#include <QSettings>
#include <QString>

#include "mirell/base/logging.h"

namespace mirell::settings {
namespace {

std::uint32_t InRange(std::uint32_t value, std::uint32_t low, std::uint32_t high,
                      std::uint32_t fallback, const char* name) {
  if (low <= value && value <= high) return value;
  LOG_WARN("{} of {} is outside {}-{}, using {}", name, value, low, high, fallback);
  return fallback;
}

std::uint32_t NearestAudioPreset(std::uint32_t value) {
  std::uint32_t nearest = AudioKbpsPresets().front();
  for (const std::uint32_t preset : AudioKbpsPresets()) {
    const auto distance = [value](std::uint32_t to) {
      return to > value ? to - value : value - to;
    };
    if (distance(preset) < distance(nearest)) nearest = preset;  // A tie keeps the lower.
  }
  return nearest;
}

std::uint32_t ReadNumber(const QSettings& settings, const char* key, std::uint32_t fallback) {
  return settings.value(key, fallback).toUInt();
}

}  // namespace

const std::vector<SizePreset>& SizePresets() {
  static const std::vector<SizePreset> presets{{854, 480, "854 x 480"},
                                               {1280, 720, "1280 x 720"},
                                               {1600, 900, "1600 x 900"},
                                               {1920, 1080, "1920 x 1080"},
                                               {2560, 1440, "2560 x 1440"}};
  return presets;
}

const std::vector<std::uint32_t>& FpsPresets() {
  static const std::vector<std::uint32_t> presets{24, 30, 60};
  return presets;
}

const std::vector<std::uint32_t>& VideoKbpsPresets() {
  static const std::vector<std::uint32_t> presets{1500, 3000, 6000, 10000, 16000, 25000};
  return presets;
}

const std::vector<std::uint32_t>& AudioKbpsPresets() {
  static const std::vector<std::uint32_t> presets{96, 128, 160, 192};
  return presets;
}

encode::ShareQuality Sanitise(encode::ShareQuality settings) {
  const encode::ShareQuality defaults;
  settings.width = InRange(settings.width, 160, 3840, defaults.width, "width");
  settings.height = InRange(settings.height, 120, 2160, defaults.height, "height");
  settings.fps = InRange(settings.fps, 10, 60, defaults.fps, "fps");
  settings.video_kbps = InRange(settings.video_kbps, 200, 25000, defaults.video_kbps, "video bitrate");
  settings.audio_kbps = NearestAudioPreset(settings.audio_kbps);
  // NV12, which the encoder takes, needs even sizes.
  settings.width &= ~1u;
  settings.height &= ~1u;
  return settings;
}

encode::ShareQuality LoadQualitySettings() {
  const QSettings stored;
  const encode::ShareQuality defaults;
  encode::ShareQuality settings;
  settings.width = ReadNumber(stored, "quality/width", defaults.width);
  settings.height = ReadNumber(stored, "quality/height", defaults.height);
  settings.fps = ReadNumber(stored, "quality/fps", defaults.fps);
  settings.video_kbps = ReadNumber(stored, "quality/videoKbps", defaults.video_kbps);
  settings.audio_kbps = ReadNumber(stored, "quality/audioKbps", defaults.audio_kbps);
  settings.mono = stored.value("quality/mono", defaults.mono).toBool();
  return Sanitise(settings);
}

void SaveQualitySettings(const encode::ShareQuality& settings) {
  QSettings stored;
  stored.setValue("quality/width", settings.width);
  stored.setValue("quality/height", settings.height);
  stored.setValue("quality/fps", settings.fps);
  stored.setValue("quality/videoKbps", settings.video_kbps);
  stored.setValue("quality/audioKbps", settings.audio_kbps);
  stored.setValue("quality/mono", settings.mono);
}

}  // namespace mirell::settings
