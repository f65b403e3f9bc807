// Knobs of the peer link that only tests turn. Process-wide; links made afterwards use them.
#pragma once

#include <chrono>
#include <cstdint>

namespace mirell::transport {

// How long a connected peer may stay silent (no RTCP, no media) before its link reports it failed.
// webrtcbin by itself notices a vanished peer only after a minute or more.
inline constexpr std::chrono::milliseconds kDefaultPeerLivenessBound{10000};
void SetPeerLivenessBound(std::chrono::milliseconds bound);

// The viewer's jitter buffer latency. In-order packets pass at once; it is how long a gap may
// wait for its retransmission before the frame is lost. 200 ms by default: 50 ms lost packets
// under a busy CPU. A build that runs many times slower (ThreadSanitizer) needs more still.
inline constexpr unsigned kDefaultReceiveLatencyMs = 200;
void SetReceiveLatency(unsigned milliseconds);

// Drops every `every`-th first transmission of a video packet as it leaves for the network, as a
// lossy path would (0: none). Retransmissions and RTCP are never dropped.
void SetOutgoingVideoLoss(unsigned every);
// How many packets that loss has dropped in this process.
std::uint64_t OutgoingVideoDropped();

}  // namespace mirell::transport
