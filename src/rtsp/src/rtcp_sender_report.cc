#include "rtcp_sender_report.h"

#include <chrono>
#include <string_view>

#include "mirell/base/media_time.h"

namespace mirell::rtsp {
namespace {

constexpr std::uint64_t kSecondsFrom1900To1970 = 0x83AA7E80;
constexpr std::string_view kCanonicalName = "mirell-probe";

void Put32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 24));
  out.push_back(static_cast<std::uint8_t>(value >> 16));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

}  // namespace

std::uint64_t NtpTime(std::int64_t ticks_100ns) {
  const auto seconds = static_cast<std::uint64_t>(ticks_100ns / kTicksPerSecond);
  const auto rest = static_cast<std::uint64_t>(ticks_100ns % kTicksPerSecond);
  const std::uint64_t fraction = (rest << 32) / static_cast<std::uint64_t>(kTicksPerSecond);
  return (seconds + kSecondsFrom1900To1970) << 32 | fraction;
}

std::int64_t SystemTicks100ns() {
  return std::chrono::duration_cast<std::chrono::duration<std::int64_t, std::ratio<1, kTicksPerSecond>>>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::vector<std::uint8_t> BuildSenderReport(std::uint32_t ssrc, std::uint64_t ntp_time,
                                            std::uint32_t rtp_time, std::uint32_t packets,
                                            std::uint32_t octets) {
  std::vector<std::uint8_t> report;
  report.reserve(52);
  report.insert(report.end(), {0x80, 200, 0, 6});
  Put32(report, ssrc);
  Put32(report, static_cast<std::uint32_t>(ntp_time >> 32));
  Put32(report, static_cast<std::uint32_t>(ntp_time));
  Put32(report, rtp_time);
  Put32(report, packets);
  Put32(report, octets);

  const std::size_t sdes_start = report.size();
  report.insert(report.end(), {0x81, 202, 0, 0});
  Put32(report, ssrc);
  report.push_back(1);
  report.push_back(static_cast<std::uint8_t>(kCanonicalName.size()));
  report.insert(report.end(), kCanonicalName.begin(), kCanonicalName.end());
  report.push_back(0);
  while ((report.size() - sdes_start) % 4 != 0) report.push_back(0);
  const std::size_t words_after_header = (report.size() - sdes_start) / 4 - 1;
  report[sdes_start + 2] = static_cast<std::uint8_t>(words_after_header >> 8);
  report[sdes_start + 3] = static_cast<std::uint8_t>(words_after_header);
  return report;
}

std::vector<std::uint8_t> BuildGoodbye(std::uint32_t ssrc, std::uint64_t ntp_time,
                                       std::uint32_t rtp_time, std::uint32_t packets,
                                       std::uint32_t octets) {
  // A compound RTCP packet starts with a report; the BYE names one source and gives no reason.
  std::vector<std::uint8_t> packet = BuildSenderReport(ssrc, ntp_time, rtp_time, packets, octets);
  packet.insert(packet.end(), {0x81, 203, 0, 1});
  Put32(packet, ssrc);
  return packet;
}

}  // namespace mirell::rtsp
