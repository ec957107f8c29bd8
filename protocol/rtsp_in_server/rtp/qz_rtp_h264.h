// H.264 over RTP (RFC 6184), packetization-mode 1.
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H264_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H264_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_nal.h"

namespace qz_rtsp_internal_server {

// Small leading units (parameter sets, SEI) aggregated into STAP-A, units
// that fit sent alone, larger ones as FU-A. Access unit delimiters are not
// sent.
class H264Packetizer : public NalUnitPacketizer {
 public:
  H264Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units, size_t max_payload);
  size_t NextPacket(uint8_t* payload, size_t capacity, bool* last) override;

 private:
  void WriteFuHeaders(const uint8_t* nal, uint8_t* out) const override;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_H264_H_
