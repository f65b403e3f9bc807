#include "peer_media_fixture.h"

#include <chrono>
#include <memory>
#include <thread>

#include "interop_support.h"
#include "mirell/media/nal.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::session::testing {

PeerMediaFixture::PeerMediaFixture(const std::filesystem::path& dir, int frames) {
  video = media::testing::SplitAtDelimiters(
      media::testing::ReadBytes(media::testing::MakeH264Fixture(dir, frames, 320, 240)));
  for (const Bytes& unit : video) keyframes.push_back(media::ContainsIdrNal(unit));
  audio = media::testing::ParseAdts(media::testing::ReadBytes(
      media::testing::MakeAacFixture(dir, frames / 30.0 + 0.5)));
}

std::int64_t VideoTime(std::int64_t start, std::size_t i) {
  return start + static_cast<std::int64_t>(i) * 10000000 / 30;
}

std::int64_t AudioTime(std::int64_t start, std::size_t j) {
  return start + (static_cast<std::int64_t>(j) - 4) * 1024 * 10000000 / 48000;
}

void PublishInRealTime(const PeerMediaFixture& fixture, std::int64_t start,
                       streams::FrameBus& frames, streams::AudioBus* audio) {
  const auto began = std::chrono::steady_clock::now();
  const std::int64_t first = AudioTime(start, 0);
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < fixture.video.size()) {
    const bool audio_next = audio != nullptr && j < fixture.audio.size() &&
                            AudioTime(start, j) < VideoTime(start, i);
    const std::int64_t t = audio_next ? AudioTime(start, j) : VideoTime(start, i);
    std::this_thread::sleep_until(began + std::chrono::microseconds((t - first) / 10));
    if (audio_next) {
      auto unit = std::make_shared<encode::EncodedAudioFrame>();
      unit->data = fixture.audio[j];
      unit->pts_100ns = t;
      unit->duration_100ns = 213333;  // 1024 samples at 48 kHz
      audio->Publish(std::move(unit));
      ++j;
    } else {
      auto frame = std::make_shared<encode::EncodedFrame>();
      frame->data = fixture.video[i];
      frame->pts_100ns = t;
      frame->keyframe = fixture.keyframes[i];
      frames.Publish(std::move(frame));
      ++i;
    }
  }
}

std::string Digest(const Bytes& bytes) {
  std::uint64_t hash = 1469598103934665603ull;
  for (std::uint8_t byte : bytes) {
    hash ^= byte;
    hash *= 1099511628211ull;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::string VideoDigest(const Bytes& annex_b) {
  Bytes canonical;
  for (media::ByteSpan nal : media::SplitAnnexB(annex_b)) media::AppendNal(canonical, nal);
  return Digest(canonical);
}

std::vector<Bytes> NalUnits(const Bytes& annex_b) {
  std::vector<Bytes> nals;
  for (media::ByteSpan nal : media::SplitAnnexB(annex_b)) nals.emplace_back(nal.begin(), nal.end());
  return nals;
}

std::vector<std::string> DecodedFrameHashes(const std::filesystem::path& h264) {
  testsupport::ProcessResult result = testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-f", "h264", "-i", h264.string(), "-f", "framemd5", "-"});
  std::vector<std::string> hashes;
  if (result.exit_code != 0) return hashes;
  for (const auto& line : media::testing::ParseFramemd5(result.out)) hashes.push_back(line.hash);
  return hashes;
}

}  // namespace mirell::session::testing
