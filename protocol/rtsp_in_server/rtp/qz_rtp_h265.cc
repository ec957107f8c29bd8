#include "protocol/rtsp_in_server/rtp/qz_rtp_h265.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {
namespace {

constexpr uint8_t kFragmentationUnit = 49;
constexpr uint8_t kAccessUnitDelimiter = 35;

// Units worth a packet: not empty, more than the two-byte header, not a
// delimiter.
std::vector<std::shared_ptr<QZRtspPacketData>> SendableUnits(
    const std::list<std::shared_ptr<QZRtspPacketData>>& units) {
  std::vector<std::shared_ptr<QZRtspPacketData>> out;
  for (const auto& unit : units) {
    if (unit && unit->size_ >= 3 && ((unit->data_[0] >> 1) & 0x3F) != kAccessUnitDelimiter) {
      out.push_back(unit);
    }
  }
  return out;
}

}  // namespace

H265Packetizer::H265Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units,
                               size_t max_payload)
    : units_(SendableUnits(units)), max_payload_(max_payload) {}

size_t H265Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = std::min(capacity, max_payload_);
  if (unit_ >= units_.size() || limit < 4) {
    return 0;
  }
  const QZRtspPacketData& unit = *units_[unit_];
  if (offset_ == 0) {
    if (unit.size_ <= limit) {
      std::memcpy(payload, unit.data_.get(), unit.size_);
      ++unit_;
      *last = unit_ >= units_.size();
      return unit.size_;
    }
    offset_ = 2;  // the two-byte header goes into the PayloadHdr and FU header
  }
  // FU (RFC 7798 4.4.3): PayloadHdr keeps F, LayerId and TID of the unit
  // with Type 49; FU header S|E|FuType.
  const uint8_t h0 = unit.data_[0];
  const uint8_t h1 = unit.data_[1];
  const size_t remaining = unit.size_ - offset_;
  const size_t chunk = std::min(remaining, limit - 3);
  payload[0] = static_cast<uint8_t>((h0 & 0x81) | (kFragmentationUnit << 1));
  payload[1] = h1;
  payload[2] = (h0 >> 1) & 0x3F;
  if (offset_ == 2) {
    payload[2] |= 0x80;  // S
  }
  const bool end = chunk == remaining;
  if (end) {
    payload[2] |= 0x40;  // E
  }
  std::memcpy(payload + 3, unit.data_.get() + offset_, chunk);
  offset_ += chunk;
  if (end) {
    offset_ = 0;
    ++unit_;
  }
  *last = unit_ >= units_.size();
  return chunk + 3;
}

}  // namespace qz_rtsp_internal_server
