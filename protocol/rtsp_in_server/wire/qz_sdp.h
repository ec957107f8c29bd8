// A snapshot of a stream's description taken from its pipe, the RTP tracks
// that follow from it, and the SDP (RFC 4566) that describes them.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_SDP_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_SDP_H_

#include <string>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"

namespace qz_rtsp_internal_server {

struct RtpTrackInfo {
  bool is_video = false;
  QZ_MEDIA_CODEC_ID codec = QZ_MEDIA_CODEC_ID_NONE;
  int payload_type = 96;
  int clock_rate = 90000;
  int channels = 0;     // audio only
  std::string control;  // "trackID=N"
};

struct StreamDescription {
  std::string name;
  bool has_video = false;
  bool has_audio = false;
  QZ_MEDIA_CODEC_ID video_codec = QZ_MEDIA_CODEC_ID_NONE;
  QZ_MEDIA_CODEC_ID audio_codec = QZ_MEDIA_CODEC_ID_NONE;
  std::vector<unsigned char> vps, sps, pps, audio_config;
  int sample_rate = 0;
  int channels = 0;
  unsigned video_kbitrate = 0;

  static StreamDescription FromPipe(QZRtspPacketPiple& piple);
  // Video first (trackID=0), then audio. Only codecs this server can send
  // over RTP become tracks: H.264, H.265, AAC, G.711 and wide-band Speex.
  // Audio clock rates are never 0: G.711 falls back to 8000 Hz mono, Speex
  // to 16000 Hz, AAC to the rate in its AudioSpecificConfig (44100 Hz stereo
  // while there is none).
  std::vector<RtpTrackInfo> Tracks() const;
};

// The SDP for DESCRIBE. `origin_address` goes into o= (IPv4 or IPv6).
std::string BuildSdp(const StreamDescription& desc,
                     const std::string& origin_address,
                     unsigned long long session_id);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_SDP_H_
