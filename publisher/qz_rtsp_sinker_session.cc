// RtspSinker: creating, describing, registering and withdrawing one pipe per
// RTSP server, pushing changed codec configuration into the pipes, and
// announcing the servers' URLs to the application.
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "publisher/qz_rtsp_sinker.h"
#include "topcommon/qz_aac_audio_config.h"
#include "topcommon/qz_event_define.h"
#include "utility/qz_log.h"

namespace qz_publisher {
namespace {

using qz_rtsp_internal_server::QZRtspServerMgr;
using qz_top_common::AACAudioConfig;
using qz_utility::LogFormat;
using qz_utility::LogLine;

}  // namespace

// The state that belongs to one set of pipes: time origin, first-frame
// gates, configuration flags and the drop flag.
void RtspSinker::ResetSessionState() {
  is_setting_video_vps_sps_pps_ = false;
  is_setting_audio_spec_config_ = false;
  is_no_complete_video_packet_drop_ = false;
  is_send_first_frame_ = true;
  send_first_frame_timestamp_ = 0;
  is_first_audio_ = true;
  first_audio_time_ = 0;
  is_first_video_ = true;
  first_video_time_ = 0;
}

bool RtspSinker::InitRtsp() {
  ResetSessionState();

  handle_2_piple_.clear();
  if (stream_name_.empty()) {
    LogLine("VartoLogIOS [I] RtspSinker::InitRtsp stream name is empty.");
    return false;
  }
  if (rtsp_servers_.empty()) {
    LogLine("VartoLogIOS [I] RtspSinker::InitRtsp rtsp_servers is empty.");
    return false;
  }

  for (void* handle : rtsp_servers_) {
    std::shared_ptr<QZRtspPacketPiple> piple = std::make_shared<QZRtspPacketPiple>(stream_name_);

    if (init_audio_packet_) {
      piple->IsHasAudio(true);
      const QZ_MEDIA_CODEC_ID codec = init_audio_packet_->CodecID();
      piple->SetAudioCodecID(codec);
      if (QZMediaPacket::AudioInfo* auido_info = init_audio_packet_->GetAudioInfo()) {
        piple->SetAudioInfo(auido_info->sample_rate_, auido_info->channels_);
      }
      if (codec == QZ_MEDIA_CODEC_ID_AAC) {
        const std::vector<QZ_BYTE> config = init_audio_packet_->GetExtraData("AudioSpecificConfig");
        if (!config.empty()) {
          int parser_obj_type = 0;
          int parser_sample_rate = 0;
          int parser_channels = 0;
          if (AACAudioConfig::Parser(config.data(), static_cast<int>(config.size()),
                                     parser_obj_type, parser_sample_rate, parser_channels)) {
            sample_rate_ = parser_sample_rate;
            channels_ = parser_channels;
            piple->SetAudioInfo(parser_sample_rate, parser_channels);
            LogFormat(
                "VartoLogIOS [I] RtspSinker::InitRtsp parser config, sample_rate=%d, channels=%d\n",
                parser_sample_rate, parser_channels);
          }
          piple->SetAudioSpecificConfig(config.data(), static_cast<QZ_UINT32>(config.size()));
          audio_specific_config_ = config;
          is_setting_audio_spec_config_ = true;
        }
      }
    }

    if (init_video_packet_) {
      const QZ_MEDIA_CODEC_ID codec = init_video_packet_->CodecID();
      if (codec == QZ_MEDIA_CODEC_ID_H264 || codec == QZ_MEDIA_CODEC_ID_H265) {
        piple->IsHasVideo(true);
        piple->SetVideoCodecID(codec);
        piple->SetVideoKBitrate(video_kbitrate_);
        if (init_video_packet_->IsKeyFrame()) {
          const std::vector<QZ_BYTE> sps = init_video_packet_->GetExtraData("sps");
          const std::vector<QZ_BYTE> pps = init_video_packet_->GetExtraData("pps");
          if (codec == QZ_MEDIA_CODEC_ID_H264) {
            if (!sps.empty() && !pps.empty()) {
              piple->SetSpsPps(sps.data(), static_cast<QZ_UINT32>(sps.size()), pps.data(),
                               static_cast<QZ_UINT32>(pps.size()));
              sps_ = sps;
              pps_ = pps;
              is_setting_video_vps_sps_pps_ = true;
            }
          } else {
            const std::vector<QZ_BYTE> vps = init_video_packet_->GetExtraData("vps");
            if (!vps.empty() && !sps.empty() && !pps.empty()) {
              piple->SetVpsSpsPps(vps.data(), static_cast<QZ_UINT32>(vps.size()), sps.data(),
                                  static_cast<QZ_UINT32>(sps.size()), pps.data(),
                                  static_cast<QZ_UINT32>(pps.size()));
              vps_ = vps;
              sps_ = sps;
              pps_ = pps;
              is_setting_video_vps_sps_pps_ = true;
            }
          }
        }
      }
    }

    std::string why;
    if (QZRtspServerMgr::Instance()->PostPiple(handle, piple, &why)) {
      handle_2_piple_.insert(std::make_pair(handle, piple));
    } else {
      // Without this line a refused stream would be streamed into nothing.
      LogFormat("VartoLogIOS [E] RtspSinker::InitRtsp server %p refused stream '%s': %s\n", handle,
                piple->StreamName().c_str(), why.c_str());
    }
  }
  return true;
}

void RtspSinker::UnInitRtsp() {
  for (auto& entry : handle_2_piple_) {
    QZRtspServerMgr::Instance()->RemovePiple(entry.first, entry.second);
  }
  handle_2_piple_.clear();
}

void RtspSinker::SetSpsPps(const std::vector<unsigned char>& sps,
                           const std::vector<unsigned char>& pps) {
  if (sps.empty()) {
    LogLine("VartoLogIOS [E] SetVpsSpsPps sps is empty");
    return;
  }
  if (pps.empty()) {
    LogLine("VartoLogIOS [E] SetVpsSpsPps pps is empty");
    return;
  }
  for (auto& entry : handle_2_piple_) {
    if (entry.second) {
      entry.second->SetSpsPps(sps.data(), static_cast<QZ_UINT32>(sps.size()), pps.data(),
                              static_cast<QZ_UINT32>(pps.size()));
    }
  }
}

void RtspSinker::SetVpsSpsPps(const std::vector<unsigned char>& vps,
                              const std::vector<unsigned char>& sps,
                              const std::vector<unsigned char>& pps) {
  if (vps.empty()) {
    LogLine("VartoLogIOS [E] SetVpsSpsPps vps is empty");
    return;
  }
  if (sps.empty()) {
    LogLine("VartoLogIOS [E] SetVpsSpsPps sps is empty");
    return;
  }
  if (pps.empty()) {
    LogLine("VartoLogIOS [E] SetVpsSpsPps pps is empty");
    return;
  }
  for (auto& entry : handle_2_piple_) {
    if (entry.second) {
      entry.second->SetVpsSpsPps(vps.data(), static_cast<QZ_UINT32>(vps.size()), sps.data(),
                                 static_cast<QZ_UINT32>(sps.size()), pps.data(),
                                 static_cast<QZ_UINT32>(pps.size()));
    }
  }
}

void RtspSinker::SetAACAudioSpecificConfig(
    const std::vector<unsigned char>& audio_specific_config) {
  if (audio_specific_config.empty()) {
    LogLine("VartoLogIOS [E] RtspSinker aac, AudioSpecificConfig is empty");
    return;
  }
  int parser_obj_type = 0;
  int parser_sample_rate = 0;
  int parser_channels = 0;
  const bool is_parser_success = AACAudioConfig::Parser(
      audio_specific_config.data(), static_cast<int>(audio_specific_config.size()), parser_obj_type,
      parser_sample_rate, parser_channels);
  if (is_parser_success) {
    sample_rate_ = parser_sample_rate;
    channels_ = parser_channels;
    LogFormat("VartoLogIOS [I] RtspSinker aac, parser config, sample_rate=%d, channels=%d\n",
              parser_sample_rate, parser_channels);
  }
  for (auto& entry : handle_2_piple_) {
    if (!entry.second) {
      continue;
    }
    if (is_parser_success) {
      entry.second->SetAudioInfo(parser_sample_rate, parser_channels);
    }
    entry.second->SetAudioSpecificConfig(audio_specific_config.data(),
                                         static_cast<QZ_UINT32>(audio_specific_config.size()));
  }
}

void RtspSinker::NotifyRtspURLs() {
  for (auto& entry : handle_2_piple_) {
    const std::shared_ptr<QZRtspPacketPiple>& piple = entry.second;
    if (!piple || piple->IsNotifiedRtspURL()) {
      continue;
    }
    const std::string rtsp_url = piple->GetRtspURL();
    if (rtsp_url.empty()) {
      continue;
    }
    FireRtspURLEvent(entry.first, rtsp_url);
    piple->IsNotifiedRtspURL(true);
  }
}

void RtspSinker::FireRtspURLEvent(QZ_HANDLE rtsp_server_handle, const std::string& url) {
  LogFormat("VartoLogIOS [I] RtspSinker::FireRtspURLEvent++ rtsp_server_handle:%p, rtsp_url:%s\n",
            rtsp_server_handle, url.c_str());
  event_mgr_->AddEvent(EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL,
                       static_cast<QZ_UINT64>(reinterpret_cast<uintptr_t>(rtsp_server_handle)), 0,
                       url, std::string(), nullptr);
  LogLine("VartoLogIOS [I] RtspSinker::FireRtspURLEvent--");
}

}  // namespace qz_publisher
