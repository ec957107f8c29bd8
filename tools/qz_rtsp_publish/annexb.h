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

// True when the Annex-B access unit `au` holds an IDR slice (H.264, NAL unit
// type 5) or an IRAP picture (H.265: BLA 16-18, IDR 19-20, CRA 21): the only
// pictures a decoder can start from. Containers also flag non-IDR I-frames
// (recovery points, open GOPs) and intra-refresh frames as key frames.
bool IsRandomAccessPoint(const uint8_t* au, size_t au_size, bool h265);

// Puts the first VPS (H.265), SPS and PPS found in `au` (Annex-B), or else in
// `extradata` (Annex-B), into the packet's extra data as bare NAL units.
void AttachParameterSets(qz_publisher::QZMediaPacket& packet,
                         bool h265,
                         const uint8_t* au,
                         size_t au_size,
                         const std::vector<uint8_t>& extradata);

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_ANNEXB_H_
