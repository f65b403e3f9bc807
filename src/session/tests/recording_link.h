// A peer link that records what a sender gives it and delivers nothing, for the sender's and
// receiver's unit tests. The tests of the real link live with the transport.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "mirell/transport/peer_link.h"

namespace mirell::session::testing {

class RecordingLink final : public transport::PeerLink {
 public:
  using Bytes = std::vector<std::uint8_t>;

  std::atomic<bool> accept{true};

  std::vector<Bytes> video() const {
    std::lock_guard hold(mutex_);
    return video_;
  }
  std::vector<Bytes> audio() const {
    std::lock_guard hold(mutex_);
    return audio_;
  }
  // The handlers a receiver installed, to feed it as the link would.
  std::function<void(ByteSpan)> video_handler;
  std::function<void(ByteSpan)> audio_handler;

  void OnLocalDescription(std::function<void(const std::string&)>) override {}
  void OnState(std::function<void(transport::PeerState)>) override {}
  void OnVideo(std::function<void(ByteSpan)> handler) override { video_handler = std::move(handler); }
  void OnAudio(std::function<void(ByteSpan)> handler) override { audio_handler = std::move(handler); }
  void OnKeyframeRequest(std::function<void()>) override {}
  void SetRemoteDescription(const std::string&) override {}
  bool SendVideo(ByteSpan packet) override { return Record(video_, packet); }
  bool SendAudio(ByteSpan packet) override { return Record(audio_, packet); }
  bool RequestKeyframe() override { return false; }
  transport::PeerState state() const override { return transport::PeerState::kConnected; }
  std::uint32_t audio_sample_rate() const override { return 48000; }
  std::uint32_t audio_channels() const override { return 2; }
  void Close() override {}

 private:
  bool Record(std::vector<Bytes>& into, ByteSpan packet) {
    if (!accept) return false;
    std::lock_guard hold(mutex_);
    into.emplace_back(packet.begin(), packet.end());
    return true;
  }

  mutable std::mutex mutex_;
  std::vector<Bytes> video_;
  std::vector<Bytes> audio_;
};

}  // namespace mirell::session::testing
