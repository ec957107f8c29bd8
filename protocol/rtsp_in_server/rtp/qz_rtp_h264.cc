#include "protocol/rtsp_in_server/rtp/qz_rtp_h264.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {
namespace {

constexpr uint8_t kStapA = 24;
constexpr uint8_t kFuA = 28;
constexpr uint8_t kAccessUnitDelimiter = 9;

uint8_t NalType(const QZRtspPacketData& unit) {
  return unit.data_[0] & 0x1F;
}

// Units worth a packet: not empty, not a bare header, not a delimiter.
std::vector<std::shared_ptr<QZRtspPacketData>> SendableUnits(
    const std::list<std::shared_ptr<QZRtspPacketData>>& units) {
  std::vector<std::shared_ptr<QZRtspPacketData>> out;
  for (const auto& unit : units) {
    if (unit && unit->size_ >= 2 && NalType(*unit) != kAccessUnitDelimiter) {
      out.push_back(unit);
    }
  }
  return out;
}

bool IsSlice(const QZRtspPacketData& unit) {
  const uint8_t type = NalType(unit);
  return type >= 1 && type <= 5;
}

}  // namespace

H264Packetizer::H264Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units,
                               size_t max_payload)
    : NalUnitPacketizer(SendableUnits(units), max_payload, 1) {}

size_t H264Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = Limit(capacity);
  if (limit == 0) {
    return 0;
  }
  if (offset_ == 0) {
    // STAP-A (RFC 6184 5.7.1): F|NRI|24, then 16-bit size + unit, repeated.
    // Only for leading non-slice units, so a slice keeps its own packet.
    size_t total = 1;
    size_t count = 0;
    uint8_t nri = 0;
    for (size_t i = unit_; i < units_.size() && !IsSlice(*units_[i]); ++i) {
      if (total + 2 + units_[i]->size_ > limit) {
        break;
      }
      total += 2 + units_[i]->size_;
      nri = std::max<uint8_t>(nri, units_[i]->data_[0] & 0x60);
      ++count;
    }
    if (count >= 2) {
      uint8_t* p = payload;
      *p++ = nri | kStapA;
      for (size_t i = 0; i < count; ++i) {
        const QZRtspPacketData& u = *units_[unit_ + i];
        PutBe16(p, static_cast<uint32_t>(u.size_));
        std::memcpy(p + 2, u.data_.get(), u.size_);
        p += 2 + u.size_;
      }
      unit_ += count;
      *last = unit_ >= units_.size();
      return total;
    }
  }
  return SingleOrFragment(payload, limit, last);
}

// FU-A (RFC 6184 5.8): indicator F|NRI|28, header S|E|R|type.
void H264Packetizer::WriteFuHeaders(const uint8_t* nal, uint8_t* out) const {
  out[0] = (nal[0] & 0xE0) | kFuA;
  out[1] = nal[0] & 0x1F;
}

}  // namespace qz_rtsp_internal_server
