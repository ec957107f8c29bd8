// Helpers shared by the sources: building packets the way a phone encoder
// hands them over.
#ifndef TOOLS_QZ_RTSP_PUBLISH_ANNEXB_H_
#define TOOLS_QZ_RTSP_PUBLISH_ANNEXB_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "publisher/qz_media_define.h"

namespace qz_tools {

qz_publisher::QZ_MediaPacketRefPtr MakeMediaPacket(bool video,
                                                   QZ_MEDIA_CODEC_ID codec,
                                                   const uint8_t* data,
                                                   size_t size,
                                                   bool key,
                                                   long long timestamp_ms);

// Puts the first VPS (H.265), SPS and PPS found in `au` (Annex-B), or else in
// `extradata` (Annex-B), into the packet's extra data as bare NAL units.
void AttachParameterSets(qz_publisher::QZMediaPacket& packet,
                         bool h265,
                         const uint8_t* au,
                         size_t au_size,
                         const std::vector<uint8_t>& extradata);

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_ANNEXB_H_
