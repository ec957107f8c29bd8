#include "protocol/rtsp_in_server/rtp/qz_rtp_nal.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {

NalUnitPacketizer::NalUnitPacketizer(std::vector<std::shared_ptr<QZRtspPacketData>> units,
                                     size_t max_payload,
                                     size_t nal_header_size)
    : units_(std::move(units)), max_payload_(max_payload), nal_header_size_(nal_header_size) {}

size_t NalUnitPacketizer::Limit(size_t capacity) const {
  const size_t limit = std::min(capacity, max_payload_);
  return unit_ >= units_.size() || limit < nal_header_size_ + 2 ? 0 : limit;
}

size_t NalUnitPacketizer::SingleOrFragment(uint8_t* payload, size_t limit, bool* last) {
  const QZRtspPacketData& unit = *units_[unit_];
  if (offset_ == 0) {
    if (unit.size_ <= limit) {
      std::memcpy(payload, unit.data_.get(), unit.size_);
      ++unit_;
      *last = unit_ >= units_.size();
      return unit.size_;
    }
    offset_ = nal_header_size_;  // the unit's header travels in the FU's own
  }
  const size_t headers = nal_header_size_ + 1;
  const size_t remaining = unit.size_ - offset_;
  const size_t chunk = std::min(remaining, limit - headers);
  WriteFuHeaders(unit.data_.get(), payload);
  uint8_t& fu_header = payload[headers - 1];
  if (offset_ == nal_header_size_) {
    fu_header |= 0x80;  // S
  }
  const bool end = chunk == remaining;
  if (end) {
    fu_header |= 0x40;  // E
  }
  std::memcpy(payload + headers, unit.data_.get() + offset_, chunk);
  offset_ += chunk;
  if (end) {
    offset_ = 0;
    ++unit_;
  }
  *last = unit_ >= units_.size();
  return chunk + headers;
}

}  // namespace qz_rtsp_internal_server
