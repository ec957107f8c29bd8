#include "protocol/rtsp_in_server/rtp/qz_rtp_speex.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {

SpeexPacketizer::SpeexPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload)
    : frame_(std::move(frame)), max_payload_(max_payload) {}

size_t SpeexPacketizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  if (done_ || !frame_ || frame_->size_ == 0) {
    return 0;
  }
  done_ = true;
  if (frame_->size_ > std::min(capacity, max_payload_)) {
    refused_ = true;  // a part of a frame is of no use to a decoder
    return 0;
  }
  std::memcpy(payload, frame_->data_.get(), frame_->size_);
  *last = true;
  return frame_->size_;
}

}  // namespace qz_rtsp_internal_server
