#include "mirell/media/h264_rtp.h"

#include "mirell/base/logging.h"

namespace mirell::media {
namespace {

constexpr std::uint8_t kStapA = 24;
constexpr std::uint8_t kFuA = 28;

}  // namespace

bool H264RtpDepacketizer::Overflows(std::size_t bytes) {
  if (oversized_) return true;
  if (bytes <= kMaxAccessUnitBytes) return false;
  oversized_ = true;
  unit_corrupt_ = true;
  ++oversized_units_;
  LOG_WARN("access unit beyond {} bytes at rtp time {}, dropped", kMaxAccessUnitBytes, unit_timestamp_);
  unit_.clear();
  fragment_.clear();
  in_fragment_ = false;
  return true;
}

void H264RtpDepacketizer::AddNal(ByteSpan nal) {
  if (nal.empty() || Overflows(unit_.size() + nal.size() + 4)) return;
  AppendNal(unit_, nal);
  if (IsKeyNal(nal[0])) unit_has_key_ = true;
}

bool H264RtpDepacketizer::Flush(H264AccessUnit& unit) {
  bool delivered = false;
  if (!unit_corrupt_ && !unit_.empty()) {
    unit.annex_b = std::move(unit_);
    unit.rtp_timestamp = unit_timestamp_;
    unit.keyframe = unit_has_key_;
    delivered = true;
  } else if (unit_corrupt_) {
    ++dropped_units_;  // An empty unit that lost nothing is no loss.
  }
  unit_.clear();
  fragment_.clear();
  in_fragment_ = false;
  unit_has_key_ = false;
  unit_corrupt_ = false;
  oversized_ = false;
  return delivered;
}

bool H264RtpDepacketizer::Push(ByteSpan packet, H264AccessUnit& unit) {
  RtpPacketView view;
  if (!ParseRtpPacket(packet, view) || view.payload.empty()) {
    ++bad_packets_;
    unit_corrupt_ = true;
    return false;
  }
  if (has_sequence_) {
    const int delta = SequenceDelta(view.sequence_number, last_sequence_);
    if (delta < 1) {
      // Duplicate or late: there is no reordering buffer, deliberately.
      ++bad_packets_;
      return false;
    }
    if (delta > 1) {
      unit_corrupt_ = true;
      lost_packets_ += static_cast<std::uint64_t>(delta - 1);
    }
  }
  last_sequence_ = view.sequence_number;
  has_sequence_ = true;

  bool flushed = false;
  if (has_timestamp_ && view.timestamp != unit_timestamp_ && (!unit_.empty() || oversized_)) {
    // The marker of the unit before was lost (or it was dropped at the cap, and so is empty):
    // the new timestamp ends it.
    flushed = Flush(unit);
  }
  unit_timestamp_ = view.timestamp;
  has_timestamp_ = true;

  const ByteSpan payload = view.payload;
  const std::uint8_t type = payload[0] & 0x1F;
  if (type == kFuA) {
    if (payload.size() < 2) {
      ++bad_packets_;
      unit_corrupt_ = true;
      return flushed;
    }
    const std::uint8_t fu = payload[1];
    if (Overflows(unit_.size() + fragment_.size() + payload.size())) return flushed;
    if (fu & 0x80) {
      fragment_.clear();
      fragment_.push_back(static_cast<std::uint8_t>((payload[0] & 0xE0) | (fu & 0x1F)));
      in_fragment_ = true;
    } else if (!in_fragment_) {
      ++lost_packets_;
      unit_corrupt_ = true;
      return flushed;
    }
    fragment_.insert(fragment_.end(), payload.begin() + 2, payload.end());
    if (fu & 0x40) {
      AddNal(fragment_);
      fragment_.clear();
      in_fragment_ = false;
    }
  } else if (type == kStapA) {
    std::size_t at = 1;
    while (payload.size() - at >= 3) {
      const std::size_t size = static_cast<std::size_t>(payload[at] << 8 | payload[at + 1]);
      if (size == 0 || at + 2 + size > payload.size()) {
        ++bad_packets_;
        unit_corrupt_ = true;
        break;
      }
      AddNal(payload.subspan(at + 2, size));
      at += 2 + size;
      if (payload.size() - at < 2) break;
    }
    in_fragment_ = false;
  } else if (type >= 1 && type <= 23) {
    AddNal(payload);
    in_fragment_ = false;
  } else {
    ++bad_packets_;
    unit_corrupt_ = true;
  }

  if (!view.marker) return flushed;
  if (in_fragment_) {
    unit_corrupt_ = true;
    in_fragment_ = false;
    fragment_.clear();
  }
  const bool ended = Flush(unit);
  return ended || flushed;
}

}  // namespace mirell::media
