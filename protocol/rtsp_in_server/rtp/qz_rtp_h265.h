// H.265 over RTP (RFC 7798).
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H265_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H265_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_nal.h"

namespace qz_rtsp_internal_server {

// Single NAL unit packets and fragmentation units that copy the original
// header's F, LayerId and TID. Access unit delimiters are not sent.
class H265Packetizer : public NalUnitPacketizer {
 public:
  H265Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  void WriteFuHeaders(const uint8_t* nal, uint8_t* out) const override;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H265_H_
