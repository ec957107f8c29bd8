#include "protocol/rtsp_in_server/rtp/qz_rtp_aac.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {

AacPacketizer::AacPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload)
    : frame_(std::move(frame)), max_payload_(max_payload) {}

size_t AacPacketizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = std::min(capacity, max_payload_);
  // 13 bits of AU size: larger frames cannot be described.
  if (done_ || !frame_ || frame_->size_ == 0 || frame_->size_ >= (1u << 13) || limit < 5) {
    return 0;
  }
  const size_t remaining = frame_->size_ - offset_;
  const size_t chunk = std::min(remaining, limit - 4);
  PutBe16(payload, 16);  // AU-headers-length in bits
  PutBe16(payload + 2, static_cast<uint32_t>(frame_->size_ << 3) & 0xFFF8);  // size | index 0
  std::memcpy(payload + 4, frame_->data_.get() + offset_, chunk);
  offset_ += chunk;
  done_ = offset_ >= frame_->size_;
  *last = done_;
  return chunk + 4;
}

}  // namespace qz_rtsp_internal_server
