// What the H.264 and H.265 packetizers share: an access unit's sendable NAL
// units, sent one per packet when they fit and as fragmentation units when
// they do not (FU-A, RFC 6184 5.8; FU, RFC 7798 4.4.3). The two formats
// differ only in the fragmentation unit's header bytes and in what H.264
// aggregates.
#ifndef PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_NAL_H_
#define PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_NAL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"

namespace qz_rtsp_internal_server {

class NalUnitPacketizer : public RtpPayloadPacketizer {
 protected:
  // `nal_header_size`: 1 for H.264, 2 for H.265.
  NalUnitPacketizer(std::vector<std::shared_ptr<QZRtspPacketData>> units,
                    size_t max_payload,
                    size_t nal_header_size);

  // The payload limit for the next packet, or 0 when every unit was sent or
  // not even a fragment's headers and a byte fit.
  size_t Limit(size_t capacity) const;
  // The unit at hand whole when it fits in `limit`, else its next fragment.
  size_t SingleOrFragment(uint8_t* payload, size_t limit, bool* last);
  // The fragmentation unit's headers for a unit with header `nal`:
  // nal_header_size + 1 bytes, the last of them the FU header whose S and E
  // bits the caller sets.
  virtual void WriteFuHeaders(const uint8_t* nal, uint8_t* out) const = 0;

  std::vector<std::shared_ptr<QZRtspPacketData>> units_;
  size_t max_payload_;
  size_t unit_ = 0;
  size_t offset_ = 0;  // within a fragmented unit; 0 between units

 private:
  size_t nal_header_size_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_RTP_QZ_RTP_NAL_H_
