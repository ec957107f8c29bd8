// AAC over RTP (RFC 3640, mode AAC-hbr).
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_AAC_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_AAC_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {

// One AU per packet behind a 16-bit AU-headers-length and one AU header
// (13-bit size, 3-bit index); an AU larger than a packet is fragmented, each
// fragment carrying the same AU header. AUs of 8192 bytes or more cannot be
// described and are not sent. The marker bit is set on a packet that ends
// an AU, not on the earlier fragments of one.
class AacPacketizer : public RtpPayloadPacketizer {
 public:
  AacPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  std::shared_ptr<QZRtspPacketData> frame_;
  size_t max_payload_;
  size_t offset_ = 0;
  bool done_ = false;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_AAC_H_
