#include "protocol/rtsp_in_server/wire/qz_sdp.h"

#include "topcommon/qz_aac_audio_config.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_utility::Base64Encode;
using qz_utility::HexEncode;

std::string B64(const std::vector<unsigned char>& v) {
  return Base64Encode(v.data(), v.size());
}

}  // namespace

StreamDescription StreamDescription::FromPipe(QZRtspPacketPiple& piple) {
  StreamDescription d;
  d.name = piple.StreamName();
  d.has_video = piple.IsHasVideo();
  d.has_audio = piple.IsHasAudio();
  d.video_codec = piple.GetVideoCodecID();
  d.audio_codec = piple.GetAudioCodecID();
  piple.GetVpsSpsPps(d.vps, d.sps, d.pps);
  piple.GetAudioSpecificConfig(d.audio_config);
  d.sample_rate = piple.AudioSampleRate();
  d.channels = piple.AudioChannels();
  d.video_kbitrate = piple.GetVideoKBitrate();
  return d;
}

std::vector<RtpTrackInfo> StreamDescription::Tracks() const {
  std::vector<RtpTrackInfo> tracks;
  if (has_video &&
      (video_codec == QZ_MEDIA_CODEC_ID_H264 || video_codec == QZ_MEDIA_CODEC_ID_H265)) {
    RtpTrackInfo t;
    t.is_video = true;
    t.codec = video_codec;
    t.payload_type = 96;
    t.clock_rate = 90000;
    tracks.push_back(t);
  }
  if (has_audio) {
    RtpTrackInfo t;
    t.codec = audio_codec;
    t.payload_type = 97;
    t.clock_rate = sample_rate;
    t.channels = channels;
    bool supported = true;
    switch (audio_codec) {
      case QZ_MEDIA_CODEC_ID_AAC: {
        int obj = 0, rate = 0, ch = 0;
        if (qz_top_common::AACAudioConfig::Parser(
                audio_config.data(), static_cast<int>(audio_config.size()), obj, rate, ch)) {
          t.clock_rate = rate;
          t.channels = ch;
        }
        // Without a readable configuration yet, keep the track (so that the
        // layout never changes) with the usual phone defaults.
        if (t.clock_rate <= 0) {
          t.clock_rate = 44100;
        }
        if (t.channels < 1) {
          t.channels = 2;
        }
        break;
      }
      case QZ_MEDIA_CODEC_ID_PCMA:
      case QZ_MEDIA_CODEC_ID_PCMU:
        if (t.clock_rate <= 0 || t.channels <= 0) {
          t.clock_rate = 8000;
          t.channels = 1;
        }
        // RFC 3551 static payload types cover 8000 Hz mono only.
        if (t.clock_rate == 8000 && t.channels == 1) {
          t.payload_type = audio_codec == QZ_MEDIA_CODEC_ID_PCMA ? 8 : 0;
        }
        break;
      case QZ_MEDIA_CODEC_ID_SPEEX_WB:
        if (t.clock_rate <= 0) {
          t.clock_rate = 16000;
        }
        t.channels = 1;
        break;
      default:
        supported = false;
    }
    if (supported) {
      tracks.push_back(t);
    }
  }
  for (size_t i = 0; i < tracks.size(); ++i) {
    tracks[i].control = "trackID=" + std::to_string(i);
  }
  return tracks;
}

std::string BuildSdp(const StreamDescription& desc,
                     const std::string& origin_address,
                     unsigned long long session_id) {
  const bool v6 = origin_address.find(':') != std::string::npos;
  std::string sdp;
  sdp += "v=0\r\n";
  sdp += "o=- " + std::to_string(session_id) + " 1 IN " + (v6 ? "IP6 " : "IP4 ") + origin_address +
         "\r\n";
  std::string session_name = desc.name.empty() ? std::string("live") : desc.name;
  for (char& c : session_name) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      c = '_';  // a line break would end the line and start a forged one
    }
  }
  sdp += "s=" + session_name + "\r\n";
  sdp += v6 ? "c=IN IP6 ::\r\n" : "c=IN IP4 0.0.0.0\r\n";
  sdp += "t=0 0\r\n";
  sdp += "a=tool:qz-rtsp\r\n";
  sdp += "a=range:npt=now-\r\n";
  sdp += "a=control:*\r\n";
  for (const RtpTrackInfo& t : desc.Tracks()) {
    const std::string pt = std::to_string(t.payload_type);
    if (t.is_video) {
      sdp += "m=video 0 RTP/AVP " + pt + "\r\n";
      if (desc.video_kbitrate > 0) {
        sdp += "b=AS:" + std::to_string(desc.video_kbitrate) + "\r\n";
      }
      if (t.codec == QZ_MEDIA_CODEC_ID_H264) {
        sdp += "a=rtpmap:" + pt + " H264/90000\r\n";
        std::string fmtp = "a=fmtp:" + pt + " packetization-mode=1";
        if (desc.sps.size() >= 4) {
          fmtp += ";profile-level-id=" + HexEncode(desc.sps.data() + 1, 3);
        }
        if (!desc.sps.empty() && !desc.pps.empty()) {
          fmtp += ";sprop-parameter-sets=" + B64(desc.sps) + "," + B64(desc.pps);
        }
        sdp += fmtp + "\r\n";
      } else {
        sdp += "a=rtpmap:" + pt + " H265/90000\r\n";
        sdp += "a=fmtp:" + pt + " sprop-vps=" + B64(desc.vps) + ";sprop-sps=" + B64(desc.sps) +
               ";sprop-pps=" + B64(desc.pps) + "\r\n";
      }
    } else {
      sdp += "m=audio 0 RTP/AVP " + pt + "\r\n";
      const std::string rate = std::to_string(t.clock_rate);
      const std::string ch = std::to_string(t.channels);
      switch (t.codec) {
        case QZ_MEDIA_CODEC_ID_AAC:
          sdp += "a=rtpmap:" + pt + " mpeg4-generic/" + rate + "/" + ch + "\r\n";
          sdp += "a=fmtp:" + pt +
                 " streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;"
                 "indexdeltalength=3;config=" +
                 HexEncode(desc.audio_config.data(), desc.audio_config.size()) + "\r\n";
          break;
        case QZ_MEDIA_CODEC_ID_PCMA:
        case QZ_MEDIA_CODEC_ID_PCMU: {
          const char* name = t.codec == QZ_MEDIA_CODEC_ID_PCMA ? "PCMA" : "PCMU";
          sdp += "a=rtpmap:" + pt + " " + name + "/" + rate + (t.channels > 1 ? "/" + ch : "") +
                 "\r\n";
          break;
        }
        default:
          sdp += "a=rtpmap:" + pt + " speex/" + rate + "\r\n";
      }
    }
    sdp += "a=control:" + t.control + "\r\n";
  }
  return sdp;
}

}  // namespace qz_rtsp_internal_server
