#include "peer_link_harness.h"

#include <gtest/gtest.h>

#include <thread>

#include "mirell/media/rtp.h"
#include "mirell/testsupport/build_speed.h"
#include "peer_link_testing.h"

namespace mirell::transport::testing {
namespace {

// Under a sanitizer everything runs several times slower: the viewer's jitter buffer needs room
// for that, or it drops packets as late and the tests of delivery fail for the build's speed.
class SlowBuildLatency : public ::testing::Environment {
 public:
  void SetUp() override {
    if constexpr (testsupport::kSanitizedBuild) SetReceiveLatency(1000);
  }
};
[[maybe_unused]] ::testing::Environment* const slow_build_latency =
    ::testing::AddGlobalTestEnvironment(new SlowBuildLatency);

}  // namespace

LinkObserver::LinkObserver(PeerLink& link) : link_(link) {
  link.OnState([this](PeerState state) {
    std::lock_guard hold(mutex_);
    states_.push_back(state);
    changed_.notify_all();
  });
  link.OnVideo([this](PeerLink::ByteSpan packet) {
    std::lock_guard hold(mutex_);
    video_.emplace_back(packet.begin(), packet.end());
    video_arrivals_.push_back(std::chrono::steady_clock::now());
    changed_.notify_all();
  });
  link.OnAudio([this](PeerLink::ByteSpan packet) {
    std::lock_guard hold(mutex_);
    audio_.emplace_back(packet.begin(), packet.end());
    changed_.notify_all();
  });
  link.OnKeyframeRequest([this] {
    std::lock_guard hold(mutex_);
    ++keyframe_requests_;
    changed_.notify_all();
  });
  link.OnLocalDescription([this](const std::string& sdp) {
    std::lock_guard hold(mutex_);
    description_ = sdp;
    description_threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  });
}

template <typename Predicate>
bool LinkObserver::WaitUntil(milliseconds timeout, Predicate done) const {
  std::unique_lock hold(mutex_);
  return changed_.wait_for(hold, timeout, [&] { return done(); });
}

std::optional<std::string> LinkObserver::WaitForDescription(milliseconds timeout) {
  WaitUntil(timeout, [&] { return description_.has_value(); });
  std::lock_guard hold(mutex_);
  return description_;
}

bool LinkObserver::WaitForState(PeerState state, milliseconds timeout) {
  return WaitUntil(timeout, [&] {
    for (PeerState seen : states_) {
      if (seen == state) return true;
    }
    return false;
  });
}

bool LinkObserver::WaitForVideo(std::size_t count, milliseconds timeout) {
  return WaitUntil(timeout, [&] { return video_.size() >= count; });
}

bool LinkObserver::WaitForAudio(std::size_t count, milliseconds timeout) {
  return WaitUntil(timeout, [&] { return audio_.size() >= count; });
}

bool LinkObserver::WaitForKeyframeRequests(int count, milliseconds timeout) {
  return WaitUntil(timeout, [&] { return keyframe_requests_ >= count; });
}

std::vector<PeerState> LinkObserver::states() const {
  std::lock_guard hold(mutex_);
  return states_;
}

std::vector<Bytes> LinkObserver::video() const {
  std::lock_guard hold(mutex_);
  return video_;
}

std::vector<Bytes> LinkObserver::audio() const {
  std::lock_guard hold(mutex_);
  return audio_;
}

int LinkObserver::keyframe_requests() const {
  std::lock_guard hold(mutex_);
  return keyframe_requests_;
}

std::vector<std::chrono::steady_clock::time_point> LinkObserver::video_arrivals() const {
  std::lock_guard hold(mutex_);
  return video_arrivals_;
}

std::vector<std::thread::id> LinkObserver::description_threads() const {
  std::lock_guard hold(mutex_);
  return description_threads_;
}

LinkPair::LinkPair(const PeerConfig& host_config, const PeerConfig& viewer_config,
                   const OfferMedia& media) {
  host = CreateOfferer(host_config, media);
  host_seen = std::make_unique<LinkObserver>(*host);
  viewer = CreateAnswerer(viewer_config);
  viewer_seen = std::make_unique<LinkObserver>(*viewer);
}

bool LinkPair::Connect(milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  auto left = [&] {
    return std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
  };
  std::optional<std::string> offered = host_seen->WaitForDescription(left());
  if (!offered) return false;
  offer = *offered;
  viewer->SetRemoteDescription(offer);
  std::optional<std::string> answered = viewer_seen->WaitForDescription(left());
  if (!answered) return false;
  answer = *answered;
  host->SetRemoteDescription(answer);
  return host_seen->WaitForState(PeerState::kConnected, left()) &&
         viewer_seen->WaitForState(PeerState::kConnected, left());
}

Bytes MakeRtpPacket(std::uint8_t payload_type, std::uint16_t sequence, std::uint32_t timestamp,
                    std::uint32_t ssrc, std::size_t size, bool marker) {
  Bytes packet;
  media::AppendRtpHeader(packet, payload_type, marker, sequence, timestamp, ssrc);
  for (std::size_t i = packet.size(); i < size; ++i) {
    packet.push_back(static_cast<std::uint8_t>((i * 31 + sequence) & 0xff));
  }
  return packet;
}

}  // namespace mirell::transport::testing
