// One WebRTC peer connection between a host and one viewer. It carries two media tracks from host
// to viewer, H.264 and AAC, as whole RTP packets that we packetize and depacketize ourselves; there
// is no data channel. The host always offers, the viewer always answers, and media flows only from
// offerer to answerer. ICE is not trickled: a description is handed over once gathering is
// complete, with every candidate inside. The link knows nothing of signalling.
//
// Calling order. Host: CreateOfferer, set handlers, wait for OnLocalDescription, send the offer,
// SetRemoteDescription(answer), then SendVideo/SendAudio. Viewer: CreateAnswerer, set handlers,
// SetRemoteDescription(offer), wait for OnLocalDescription, send the answer.
//
// Handlers run on the link's own threads (or, for a description already known, at once on the
// caller's). A handler must not destroy its link; the owner calls Close on another thread first.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mirell/transport/peer_config.h"

namespace mirell::transport {

// The media format over the link: the same on every build and every side.
inline constexpr std::string_view kVideoMid = "video";
inline constexpr std::string_view kAudioMid = "audio";
// Four ASCII letters read as a big-endian number: "MRLV" and "MRLA".
inline constexpr std::uint32_t kVideoSsrc = 0x4D524C56;
inline constexpr std::uint32_t kAudioSsrc = 0x4D524C41;
// The largest RTP packet either track carries, header included.
inline constexpr std::size_t kMaxRtpPacketSize = 1200;
// Fixed whatever the encoder makes: a viewer does not decode by it.
inline constexpr std::string_view kVideoFormatParameters =
    "profile-level-id=42e01f;packetization-mode=1;level-asymmetry-allowed=1";
// How many sent packets each track keeps for retransmission on a NACK.
inline constexpr unsigned kNackStorePackets = 512;

// What an offerer sends.
struct OfferMedia {
  std::uint8_t video_payload_type = 96;
  std::uint8_t audio_payload_type = 97;
  std::uint32_t sample_rate = 48000;
  std::uint32_t channels = 2;
  std::vector<std::uint8_t> audio_specific_config;  // Empty: made from rate and channels.
  bool has_audio = true;
};

enum class PeerState : std::uint32_t {
  kConnecting = 0,
  kConnected = 1,
  kFailed = 2,
  kClosed = 3,
};

// "connecting", "connected", "failed", "closed"; "?" outside the table.
std::string_view PeerStateWord(PeerState state);

class PeerLink {
 public:
  using ByteSpan = std::span<const std::uint8_t>;

  // Runs Close.
  virtual ~PeerLink() = default;

  // Called once, when gathering is complete; at once on the caller's thread if already known.
  virtual void OnLocalDescription(std::function<void(const std::string& sdp)> handler) = 0;
  // Each change of state. kConnected may be followed by kFailed or kClosed, and nothing leads
  // back from those.
  virtual void OnState(std::function<void(PeerState)> handler) = 0;
  // Each RTP packet of the remote video or audio track, unchanged.
  virtual void OnVideo(std::function<void(ByteSpan)> handler) = 0;
  virtual void OnAudio(std::function<void(ByteSpan)> handler) = 0;
  // The remote asked for a keyframe (RTCP PLI on the video track).
  virtual void OnKeyframeRequest(std::function<void()> handler) = 0;

  // Applies the other side's description. Throws on failure.
  virtual void SetRemoteDescription(const std::string& sdp) = 0;
  // One whole RTP packet. False while the link is not connected, for an empty span, for a track
  // that does not exist, and after Close: a caller counts it and goes on.
  virtual bool SendVideo(ByteSpan packet) = 0;
  virtual bool SendAudio(ByteSpan packet) = 0;
  // Asks the remote for a keyframe; false when there is no open video track to ask on.
  virtual bool RequestKeyframe() = 0;

  virtual PeerState state() const = 0;
  // Offerer: from OfferMedia. Answerer: from the remote description. 0 until known or without
  // audio.
  virtual std::uint32_t audio_sample_rate() const = 0;
  virtual std::uint32_t audio_channels() const = 0;

  // Ends the link; no handler runs once it has returned. A second call does nothing.
  virtual void Close() = 0;
};

// Gathering starts at once. Failures of the WebRTC stack are thrown.
std::unique_ptr<PeerLink> CreateOfferer(const PeerConfig& config, const OfferMedia& media);
std::unique_ptr<PeerLink> CreateAnswerer(const PeerConfig& config);

// Pays the WebRTC stack's one-time costs now (its set-up, and the DTLS certificate that every
// link of the process shares, some 200 ms of key generation), so that the first link made later
// is as quick as any other. Blocks while it works; a failure is logged, never thrown.
void PrepareLinks();

// Routes the WebRTC stack's own log into ours ("rtc: ..."): its errors and warnings at warn,
// everything else at debug. Idempotent; the factories also set the stack up on first use.
void InitialiseTransportLogging();

}  // namespace mirell::transport
