#include "protocol/rtsp_in_server/rtp/qz_rtp_g711.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {

G711Packetizer::G711Packetizer(std::shared_ptr<QZRtspPacketData> frame,
                               size_t max_payload,
                               size_t channels)
    : frame_(std::move(frame)), max_payload_(max_payload), channels_(channels > 0 ? channels : 1) {}

size_t G711Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  if (!frame_ || offset_ >= frame_->size_) {
    return 0;
  }
  const size_t remaining = frame_->size_ - offset_;
  size_t chunk = std::min({remaining, capacity, max_payload_});
  if (chunk < remaining) {
    chunk -= chunk % channels_;  // a packet ends after the last channel of a sample
  }
  if (chunk == 0) {
    return 0;
  }
  std::memcpy(payload, frame_->data_.get() + offset_, chunk);
  packet_start_ = offset_;
  offset_ += chunk;
  *last = offset_ >= frame_->size_;
  return chunk;
}

}  // namespace qz_rtsp_internal_server
