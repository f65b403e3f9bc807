// RTCP sender reports for the interleaved RTSP connection: SR followed by an SDES with a CNAME,
// so that a player can map RTP time to wall-clock time and line the two tracks up; and the BYE
// that ends a track.
#pragma once

#include <cstdint>
#include <vector>

namespace mirell::rtsp {

// 100-nanosecond ticks since 1970 to NTP time: whole seconds since 1900 in the upper half, the
// fraction of the second in the lower.
std::uint64_t NtpTime(std::int64_t ticks_100ns);

// The system clock now, in 100-nanosecond ticks since 1970.
std::int64_t SystemTicks100ns();

std::vector<std::uint8_t> BuildSenderReport(std::uint32_t ssrc, std::uint64_t ntp_time,
                                            std::uint32_t rtp_time, std::uint32_t packets,
                                            std::uint32_t octets);

// A sender report followed by a BYE: the track has ended, and a player that has one for every
// track ends its stream.
std::vector<std::uint8_t> BuildGoodbye(std::uint32_t ssrc, std::uint64_t ntp_time,
                                       std::uint32_t rtp_time, std::uint32_t packets,
                                       std::uint32_t octets);

}  // namespace mirell::rtsp
