// RtspSinker: the audio send paths. AAC, G.711 and wide-band Speex frames
// become QZRtspAudioPacket records posted into every pipe.
#include <cassert>
#include <cstring>
#include <new>

#include "publisher/qz_rtsp_sinker.h"
#include "utility/qz_log.h"

namespace qz_publisher {
namespace {

using qz_utility::LogLine;

// Rates assumed when a G.711 or Speex packet carries no usable audio info:
// G.711 is 8 kHz mono by definition (RFC 3551), wide-band Speex 16 kHz.
constexpr QZ_INT32 kG711SampleRate = 8000;
constexpr QZ_INT32 kSpeexWbSampleRate = 16000;

}  // namespace

void RtspSinker::SendAudioPacket(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  switch (packet->CodecID()) {
    case QZ_MEDIA_CODEC_ID_PCMA:
    case QZ_MEDIA_CODEC_ID_PCMU:
      SendG711Packet(packet);
      break;
    case QZ_MEDIA_CODEC_ID_AAC:
      SendAACPacket(packet);
      break;
    case QZ_MEDIA_CODEC_ID_SPEEX_WB:
      SendSpeexPacket(packet);
      break;
    default:
      break;
  }
}

void RtspSinker::SendAACPacket(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  const std::vector<QZ_BYTE> config = packet->GetExtraData("AudioSpecificConfig");
  if (!is_setting_audio_spec_config_) {
    if (!config.empty()) {
      SetAACAudioSpecificConfig(config);
      audio_specific_config_ = config;
      is_setting_audio_spec_config_ = true;
    }
  } else if (!config.empty() && config != audio_specific_config_) {
    LogLine("VartoLogIOS [I] RtspSinker auido config changed, need to re-send it");
    SetAACAudioSpecificConfig(config);
    audio_specific_config_ = config;
  }
  SendAACRawFrame(packet);
}

void RtspSinker::SendAACRawFrame(QZ_MediaPacketRefPtr packet) {
  if (handle_2_piple_.empty()) {
    return;
  }
  assert(packet);
  QZ_INT32 sample_rate = sample_rate_;
  QZ_INT32 channels = channels_;
  if (const QZMediaPacket::AudioInfo* info = packet->GetAudioInfo()) {
    sample_rate = info->sample_rate_;
    channels = info->channels_;
  }
  if (packet->Data() == nullptr || packet->Size() < 1) {
    return;  // nothing to carry
  }
  std::shared_ptr<QZRtspAudioPacket> record =
      MakeAudioRecord(packet, QZ_MEDIA_CODEC_ID_AAC, sample_rate, channels);
  if (!record) {
    LogLine("VartoLogIOS [I] RtspSinker::SendAACRawFrame new data failed");
    return;
  }
  PostToPiples(record);
}

void RtspSinker::SendG711Packet(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  if (is_first_audio_) {
    first_audio_time_ = static_cast<QZ_UINT64>(packet->TimeStamp());
    is_first_audio_ = false;
  }
  SendAudioFrame(packet, kG711SampleRate, 1);
}

void RtspSinker::SendSpeexPacket(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  if (is_first_audio_) {
    first_audio_time_ = static_cast<QZ_UINT64>(packet->TimeStamp());
    is_first_audio_ = false;
  }
  SendAudioFrame(packet, kSpeexWbSampleRate, 1);
}

// G.711 and Speex frames travel like AAC ones, under the packet's own codec
// id. An audio info with a rate or channel count below 1 is ignored, so that
// a server never gets 0 as an RTP clock.
void RtspSinker::SendAudioFrame(QZ_MediaPacketRefPtr packet,
                                QZ_INT32 default_sample_rate,
                                QZ_INT32 default_channels) {
  if (handle_2_piple_.empty() || packet->Data() == nullptr || packet->Size() < 1) {
    return;
  }
  QZ_INT32 sample_rate = default_sample_rate;
  QZ_INT32 channels = default_channels;
  const QZMediaPacket::AudioInfo* info = packet->GetAudioInfo();
  if (info != nullptr && info->sample_rate_ > 0 && info->channels_ > 0) {
    sample_rate = info->sample_rate_;
    channels = info->channels_;
  }
  std::shared_ptr<QZRtspAudioPacket> record =
      MakeAudioRecord(packet, packet->CodecID(), sample_rate, channels);
  if (record) {
    PostToPiples(record);
  }
}

std::shared_ptr<QZRtspAudioPacket> RtspSinker::MakeAudioRecord(QZ_MediaPacketRefPtr packet,
                                                               QZ_MEDIA_CODEC_ID codec_id,
                                                               QZ_INT32 sample_rate,
                                                               QZ_INT32 channels) const {
  const QZ_UINT64 out_timestamp =
      static_cast<QZ_UINT64>(packet->TimeStamp()) - send_first_frame_timestamp_;
  const size_t size = static_cast<size_t>(packet->Size());
  QZ_BYTE* buffer = new (std::nothrow) QZ_BYTE[size];
  if (buffer == nullptr) {
    return nullptr;
  }
  std::memcpy(buffer, packet->Data(), size);
  std::shared_ptr<QZRtspAudioPacket> record = std::make_shared<QZRtspAudioPacket>();
  record->codec_id_ = codec_id;
  record->sample_rate_ = sample_rate;
  record->channels_ = channels;
  record->time_stamp_ = out_timestamp;
  record->pushed_us_ = popped_pushed_us_;
  record->data_ = std::make_shared<QZRtspPacketData>(buffer, static_cast<QZ_UINT32>(size));
  return record;
}

}  // namespace qz_publisher
