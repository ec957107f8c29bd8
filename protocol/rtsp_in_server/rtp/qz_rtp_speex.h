// Speex over RTP (RFC 5574).
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_SPEEX_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_SPEEX_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {

// The payload is whole Speex frames with no header of its own, and a frame
// must never be split across packets: a receiver cannot decode a part of
// one. A record (one or more frames as the encoder handed them over) goes
// into exactly one packet; a record larger than the payload size is not
// sent at all, and refused() tells the caller so that it can count it.
class SpeexPacketizer : public RtpPayloadPacketizer {
 public:
  SpeexPacketizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;
  bool MarksTalkspurtStart() const override { return true; }

  bool refused() const { return refused_; }

 private:
  std::shared_ptr<QZRtspPacketData> frame_;
  size_t max_payload_;
  bool done_ = false;
  bool refused_ = false;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_SPEEX_H_
