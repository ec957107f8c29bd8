// G.711 A-law and mu-law over RTP (RFC 3551 4.5.14).
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_G711_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_G711_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {

// G.711 is sample-based, one octet per sample and channel, so any whole
// number of samples makes a valid payload: a frame larger than the payload
// size is split into packets of at most that size, each ending on a sample
// boundary of `channels` interleaved channels. Each packet is stamped with
// the time of its own first sample.
class G711Packetizer : public RtpPayloadPacketizer {
 public:
  G711Packetizer(std::shared_ptr<QZRtspPacketData> frame, size_t max_payload, size_t channels);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;
  uint32_t LastPacketTimeOffset() const override {
    return static_cast<uint32_t>(packet_start_ / channels_);
  }
  bool MarksTalkspurtStart() const override { return true; }

 private:
  std::shared_ptr<QZRtspPacketData> frame_;
  size_t max_payload_;
  size_t channels_;
  size_t offset_ = 0;        // of the next packet's first byte in the frame
  size_t packet_start_ = 0;  // of the last packet's first byte
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_G711_H_
