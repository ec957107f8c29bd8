#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"

#include <algorithm>

namespace qz_rtsp_internal_server {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

template <class T>
void AddWeak(std::vector<std::weak_ptr<T>>& list, const std::shared_ptr<T>& sinker) {
  if (!sinker) {
    return;
  }
  for (const auto& weak : list) {
    if (weak.lock() == sinker) {
      return;
    }
  }
  list.push_back(sinker);
}

// Removes `sinker` and every consumer that no longer exists.
template <class T>
void RemoveWeak(std::vector<std::weak_ptr<T>>& list, const std::shared_ptr<T>& sinker) {
  list.erase(std::remove_if(list.begin(), list.end(),
                            [&sinker](const std::weak_ptr<T>& weak) {
                              std::shared_ptr<T> strong = weak.lock();
                              return !strong || strong == sinker;
                            }),
             list.end());
}

template <class T>
void CollectLive(std::vector<std::weak_ptr<T>>& list, std::vector<std::shared_ptr<T>>& out) {
  out.clear();
  out.reserve(list.size());
  bool has_expired = false;
  for (const auto& weak : list) {
    if (std::shared_ptr<T> strong = weak.lock()) {
      out.push_back(std::move(strong));
    } else {
      has_expired = true;
    }
  }
  if (has_expired) {
    list.erase(std::remove_if(list.begin(), list.end(),
                              [](const std::weak_ptr<T>& weak) { return weak.expired(); }),
               list.end());
  }
}

}  // namespace

QZRtspPacketPiple::QZRtspPacketPiple(const std::string& stream_name)
    : stream_name_(stream_name),
      is_has_audio_(false),
      is_has_video_(false),
      audio_codec_id_(QZ_MEDIA_CODEC_ID_NONE),
      video_codec_id_(QZ_MEDIA_CODEC_ID_NONE),
      audio_sample_rate_(0),
      audio_channels_(0),
      video_kbitrate_(0),
      is_notified_rtsp_url_(false) {}

std::string QZRtspPacketPiple::StreamName() const {
  Lock lock(rmutex_);
  return stream_name_;
}

void QZRtspPacketPiple::IsHasAudio(bool is_has_audio) {
  Lock lock(rmutex_);
  is_has_audio_ = is_has_audio;
  ++config_version_;
}

void QZRtspPacketPiple::IsHasVideo(bool is_has_video) {
  Lock lock(rmutex_);
  is_has_video_ = is_has_video;
  ++config_version_;
}

bool QZRtspPacketPiple::IsHasAudio() const {
  Lock lock(rmutex_);
  return is_has_audio_;
}

bool QZRtspPacketPiple::IsHasVideo() const {
  Lock lock(rmutex_);
  return is_has_video_;
}

void QZRtspPacketPiple::SetAudioCodecID(QZ_MEDIA_CODEC_ID codec_id) {
  Lock lock(rmutex_);
  audio_codec_id_ = codec_id;
  ++config_version_;
}

void QZRtspPacketPiple::SetVideoCodecID(QZ_MEDIA_CODEC_ID codec_id) {
  Lock lock(rmutex_);
  video_codec_id_ = codec_id;
  ++config_version_;
}

QZ_MEDIA_CODEC_ID QZRtspPacketPiple::GetAudioCodecID() const {
  Lock lock(rmutex_);
  return audio_codec_id_;
}

QZ_MEDIA_CODEC_ID QZRtspPacketPiple::GetVideoCodecID() const {
  Lock lock(rmutex_);
  return video_codec_id_;
}

void QZRtspPacketPiple::SetAudioInfo(QZ_INT32 sample_rate, QZ_INT32 channels) {
  Lock lock(rmutex_);
  audio_sample_rate_ = sample_rate;
  audio_channels_ = channels;
  ++config_version_;
}

QZ_INT32 QZRtspPacketPiple::AudioSampleRate() const {
  Lock lock(rmutex_);
  return audio_sample_rate_;
}

QZ_INT32 QZRtspPacketPiple::AudioChannels() const {
  Lock lock(rmutex_);
  return audio_channels_;
}

void QZRtspPacketPiple::SetAudioSpecificConfig(const QZ_BYTE* data, QZ_UINT32 size) {
  Lock lock(rmutex_);
  if (data == nullptr) {
    size = 0;
  }
  auido_specific_config_.assign(data, data + size);
  ++config_version_;
}

void QZRtspPacketPiple::GetAudioSpecificConfig(std::vector<unsigned char>& config) {
  Lock lock(rmutex_);
  config = auido_specific_config_;
}

void QZRtspPacketPiple::SetVideoKBitrate(QZ_UINT32 kbitrate) {
  Lock lock(rmutex_);
  video_kbitrate_ = kbitrate;
  ++config_version_;
}

QZ_UINT32 QZRtspPacketPiple::GetVideoKBitrate() const {
  Lock lock(rmutex_);
  return video_kbitrate_;
}

namespace {

void AssignBytes(std::vector<unsigned char>& to, const QZ_BYTE* data, QZ_UINT32 size) {
  if (data == nullptr) {
    to.clear();
  } else {
    to.assign(data, data + size);
  }
}

}  // namespace

void QZRtspPacketPiple::SetSpsPps(const QZ_BYTE* sps,
                                  QZ_UINT32 sps_size,
                                  const QZ_BYTE* pps,
                                  QZ_UINT32 pps_size) {
  Lock lock(rmutex_);
  AssignBytes(sps_, sps, sps_size);
  AssignBytes(pps_, pps, pps_size);
  ++config_version_;
}

void QZRtspPacketPiple::SetVpsSpsPps(const QZ_BYTE* vps,
                                     QZ_UINT32 vps_size,
                                     const QZ_BYTE* sps,
                                     QZ_UINT32 sps_size,
                                     const QZ_BYTE* pps,
                                     QZ_UINT32 pps_size) {
  Lock lock(rmutex_);
  AssignBytes(vps_, vps, vps_size);
  AssignBytes(sps_, sps, sps_size);
  AssignBytes(pps_, pps, pps_size);
  ++config_version_;
}

void QZRtspPacketPiple::GetSpsPps(std::vector<unsigned char>& sps,
                                  std::vector<unsigned char>& pps) {
  Lock lock(rmutex_);
  sps = sps_;
  pps = pps_;
}

void QZRtspPacketPiple::GetVpsSpsPps(std::vector<unsigned char>& vps,
                                     std::vector<unsigned char>& sps,
                                     std::vector<unsigned char>& pps) const {
  Lock lock(rmutex_);
  vps = vps_;
  sps = sps_;
  pps = pps_;
}

bool QZRtspPacketPiple::IsHasH264() const {
  Lock lock(rmutex_);
  return is_has_video_ && video_codec_id_ == QZ_MEDIA_CODEC_ID_H264;
}

bool QZRtspPacketPiple::IsHasH265() const {
  Lock lock(rmutex_);
  return is_has_video_ && video_codec_id_ == QZ_MEDIA_CODEC_ID_H265;
}

bool QZRtspPacketPiple::IsHasAAC() const {
  Lock lock(rmutex_);
  return is_has_audio_ && audio_codec_id_ == QZ_MEDIA_CODEC_ID_AAC;
}

bool QZRtspPacketPiple::IsHasPCMA() const {
  Lock lock(rmutex_);
  return is_has_audio_ && audio_codec_id_ == QZ_MEDIA_CODEC_ID_PCMA;
}

bool QZRtspPacketPiple::IsHasPCMU() const {
  Lock lock(rmutex_);
  return is_has_audio_ && audio_codec_id_ == QZ_MEDIA_CODEC_ID_PCMU;
}

void QZRtspPacketPiple::SetRtspURL(const std::string& url) {
  Lock lock(rmutex_);
  rtsp_url_ = url;
}

std::string QZRtspPacketPiple::GetRtspURL() const {
  Lock lock(rmutex_);
  return rtsp_url_;
}

bool QZRtspPacketPiple::IsHasAVConfig() const {
  Lock lock(rmutex_);
  if (!is_has_audio_ && !is_has_video_) {
    return false;
  }
  if (is_has_video_) {
    switch (video_codec_id_) {
      case QZ_MEDIA_CODEC_ID_H264:
        if (sps_.empty() || pps_.empty()) {
          return false;
        }
        break;
      case QZ_MEDIA_CODEC_ID_H265:
        if (vps_.empty() || sps_.empty() || pps_.empty()) {
          return false;
        }
        break;
      default:
        return false;
    }
  }
  // G.711 and Speex have well-known default rates; AAC cannot be described
  // without its AudioSpecificConfig.
  if (is_has_audio_ && audio_codec_id_ == QZ_MEDIA_CODEC_ID_AAC && auido_specific_config_.empty()) {
    return false;
  }
  return true;
}

QZ_UINT64 QZRtspPacketPiple::ConfigVersion() const {
  Lock lock(rmutex_);
  return config_version_;
}

void QZRtspPacketPiple::AddAudioSinker(std::shared_ptr<QZRtspAudioSinker>& sinker) {
  Lock lock(sinkers_rmutex_);
  AddWeak(audio_sinkers_, sinker);
}

void QZRtspPacketPiple::RemoveAudioSinker(std::shared_ptr<QZRtspAudioSinker>& sinker) {
  Lock lock(sinkers_rmutex_);
  RemoveWeak(audio_sinkers_, sinker);
}

void QZRtspPacketPiple::AddVideoSinker(std::shared_ptr<QZRtspVideoSinker>& sinker) {
  Lock lock(sinkers_rmutex_);
  AddWeak(video_sinkers_, sinker);
}

void QZRtspPacketPiple::RemoveVideoSinker(std::shared_ptr<QZRtspVideoSinker>& sinker) {
  Lock lock(sinkers_rmutex_);
  RemoveWeak(video_sinkers_, sinker);
}

void QZRtspPacketPiple::GetAudioSinkers(std::vector<std::shared_ptr<QZRtspAudioSinker>>& sinkers) {
  Lock lock(sinkers_rmutex_);
  CollectLive(audio_sinkers_, sinkers);
}

void QZRtspPacketPiple::GetVideoSinkers(std::vector<std::shared_ptr<QZRtspVideoSinker>>& sinkers) {
  Lock lock(sinkers_rmutex_);
  CollectLive(video_sinkers_, sinkers);
}

void QZRtspPacketPiple::PostAudioPacket(std::shared_ptr<QZRtspAudioPacket>& packet) {
  if (!packet) {
    return;
  }
  std::vector<std::shared_ptr<QZRtspAudioSinker>> sinkers;
  GetAudioSinkers(sinkers);
  for (auto& sinker : sinkers) {
    sinker->OnRtspPacket(packet);
  }
}

void QZRtspPacketPiple::PostVideoPacket(std::shared_ptr<QZRtspVideoPacket>& packet) {
  if (!packet) {
    return;
  }
  std::vector<std::shared_ptr<QZRtspVideoSinker>> sinkers;
  GetVideoSinkers(sinkers);
  for (auto& sinker : sinkers) {
    sinker->OnRtspPacket(packet);
  }
}

}  // namespace qz_rtsp_internal_server
