// The SDP built from whatever a publisher's pipe holds: any parameter sets,
// audio config, codec and name. The result must stay well-formed SDP (one
// "x=value" per CRLF-ended line, nothing a client would choke on), and the
// parameter sets must come back byte for byte from sprop-parameter-sets.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_sdp.h"
#include "utility/qz_base64.h"

namespace {

using qz_rtsp_internal_server::BuildSdp;
using qz_rtsp_internal_server::StreamDescription;

// Takes a length-prefixed field off the front of the input.
std::vector<unsigned char> Take(const uint8_t*& data, size_t& size) {
  if (size == 0) {
    return {};
  }
  const size_t n = std::min<size_t>(data[0], size - 1);
  std::vector<unsigned char> out(data + 1, data + 1 + n);
  data += 1 + n;
  size -= 1 + n;
  return out;
}

void CheckLines(const std::string& sdp) {
  size_t pos = 0;
  while (pos < sdp.size()) {
    const size_t end = sdp.find("\r\n", pos);
    if (end == std::string::npos || end - pos < 2 || sdp[pos + 1] != '=' || sdp[pos] < 'a' ||
        sdp[pos] > 'z') {
      abort();
    }
    for (size_t i = pos; i < end; ++i) {
      const unsigned char c = static_cast<unsigned char>(sdp[i]);
      if (c < 0x20 || c == 0x7F) {
        abort();
      }
    }
    pos = end + 2;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) {
    return 0;
  }
  static const QZ_MEDIA_CODEC_ID kVideo[] = {QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_H264,
                                             QZ_MEDIA_CODEC_ID_H265};
  static const QZ_MEDIA_CODEC_ID kAudio[] = {QZ_MEDIA_CODEC_ID_NONE, QZ_MEDIA_CODEC_ID_AAC,
                                             QZ_MEDIA_CODEC_ID_PCMA, QZ_MEDIA_CODEC_ID_PCMU,
                                             QZ_MEDIA_CODEC_ID_SPEEX_WB};
  StreamDescription desc;
  desc.video_codec = kVideo[data[0] % 3];
  desc.has_video = desc.video_codec != QZ_MEDIA_CODEC_ID_NONE;
  desc.audio_codec = kAudio[data[1] % 5];
  desc.has_audio = desc.audio_codec != QZ_MEDIA_CODEC_ID_NONE;
  desc.sample_rate = (data[2] & 0x7F) * 1000 - 1000;  // negative and odd rates too
  desc.channels = (data[3] & 0x0F) - 1;
  data += 4;
  size -= 4;
  const std::vector<unsigned char> name = Take(data, size);
  desc.name.assign(name.begin(), name.end());
  desc.vps = Take(data, size);
  desc.sps = Take(data, size);
  desc.pps = Take(data, size);
  desc.audio_config = Take(data, size);

  const std::string sdp = BuildSdp(desc, "192.0.2.1", 1);
  CheckLines(sdp);
  if (desc.video_codec == QZ_MEDIA_CODEC_ID_H264 && !desc.sps.empty() && !desc.pps.empty()) {
    // Looked for in the fmtp line: the session name may hold any text.
    const std::string key = "sprop-parameter-sets=";
    const size_t at = sdp.find(key, sdp.find("\r\na=fmtp:"));
    if (at == std::string::npos) {
      abort();
    }
    const size_t comma = sdp.find(',', at);
    const size_t end = sdp.find("\r\n", at);
    std::string sps, pps;
    if (!qz_utility::Base64Decode(sdp.substr(at + key.size(), comma - at - key.size()), sps) ||
        !qz_utility::Base64Decode(sdp.substr(comma + 1, end - comma - 1), pps) ||
        sps != std::string(desc.sps.begin(), desc.sps.end()) ||
        pps != std::string(desc.pps.begin(), desc.pps.end())) {
      abort();
    }
  }
  return 0;
}
