// Watching peer links from a test: what each delivered and when, and a host and a viewer link in
// this process joined by handing their descriptions over directly. Test code only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mirell/transport/peer_link.h"

namespace mirell::transport::testing {

using Bytes = std::vector<std::uint8_t>;
using std::chrono::milliseconds;

// Records everything a link hands to its handlers. Set up before the link can deliver anything.
// It closes the link when it goes, since the link's handlers point into it.
class LinkObserver {
 public:
  explicit LinkObserver(PeerLink& link);
  ~LinkObserver() { link_.Close(); }
  LinkObserver(const LinkObserver&) = delete;
  LinkObserver& operator=(const LinkObserver&) = delete;

  std::optional<std::string> WaitForDescription(milliseconds timeout);
  bool WaitForState(PeerState state, milliseconds timeout);
  bool WaitForVideo(std::size_t count, milliseconds timeout);
  bool WaitForAudio(std::size_t count, milliseconds timeout);
  bool WaitForKeyframeRequests(int count, milliseconds timeout);

  std::vector<PeerState> states() const;
  std::vector<Bytes> video() const;
  std::vector<Bytes> audio() const;
  int keyframe_requests() const;
  // When each video packet arrived, in the order of video().
  std::vector<std::chrono::steady_clock::time_point> video_arrivals() const;
  // Threads that ran the description handler.
  std::vector<std::thread::id> description_threads() const;

 private:
  template <typename Predicate>
  bool WaitUntil(milliseconds timeout, Predicate done) const;

  PeerLink& link_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::optional<std::string> description_;
  std::vector<std::thread::id> description_threads_;
  std::vector<PeerState> states_;
  std::vector<Bytes> video_;
  std::vector<std::chrono::steady_clock::time_point> video_arrivals_;
  std::vector<Bytes> audio_;
  int keyframe_requests_ = 0;
};

// An offerer and an answerer in this process. Connect hands the offer and the answer over.
struct LinkPair {
  LinkPair(const PeerConfig& host_config, const PeerConfig& viewer_config,
           const OfferMedia& media = OfferMedia{});
  // The descriptions handed over, then both links connected within `timeout`.
  bool Connect(milliseconds timeout = milliseconds(10000));

  std::unique_ptr<PeerLink> host;
  std::unique_ptr<LinkObserver> host_seen;
  std::unique_ptr<PeerLink> viewer;
  std::unique_ptr<LinkObserver> viewer_seen;
  std::string offer;
  std::string answer;
};

// One RTP packet of `size` bytes in all, header included; the payload is a pattern of the sequence.
Bytes MakeRtpPacket(std::uint8_t payload_type, std::uint16_t sequence, std::uint32_t timestamp,
                    std::uint32_t ssrc, std::size_t size, bool marker = false);

}  // namespace mirell::transport::testing
