// The hand-off between a publisher and an in-process RTSP server: the packet
// records, the consumer interface of the server side, and the pipe that
// carries a stream's description and records from the publisher to the
// server (and the stream's URL back).
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_PACKET_PIPE_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_PACKET_PIPE_H_

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "topcommon/qz_common_media_define.h"
#include "topcommon/qz_type_define.h"

namespace qz_rtsp_internal_server {

// One contiguous buffer: one NAL unit or one audio frame. Adopts a buffer
// allocated with array new; it is released with array delete when the last
// shared reference goes. Never written after it was handed out.
struct QZRtspPacketData {
  QZRtspPacketData(QZ_BYTE* data, QZ_UINT32 size) : data_(data), size_(size) {}
  QZRtspPacketData(const QZRtspPacketData&) = delete;
  QZRtspPacketData& operator=(const QZRtspPacketData&) = delete;

  std::unique_ptr<unsigned char[]> data_;
  QZ_UINT32 size_;
};

// One video access unit: bare NAL units (no start codes) in decoding order.
struct QZRtspVideoPacket {
  QZRtspVideoPacket() : codec_id_(QZ_MEDIA_CODEC_ID_NONE), is_key_frame_(false), time_stamp_(0) {}

  bool IsH264() const { return codec_id_ == QZ_MEDIA_CODEC_ID_H264; }
  bool IsH265() const { return codec_id_ == QZ_MEDIA_CODEC_ID_H265; }

  QZ_MEDIA_CODEC_ID codec_id_;
  bool is_key_frame_;
  QZ_UINT64 time_stamp_;     // ms on the session's time line
  long long pushed_us_ = 0;  // steady_clock µs when the frame was pushed (0: unknown)
  std::list<std::shared_ptr<QZRtspPacketData>> nal_units_;
};

// One encoded audio frame.
struct QZRtspAudioPacket {
  QZRtspAudioPacket()
      : codec_id_(QZ_MEDIA_CODEC_ID_NONE), sample_rate_(0), channels_(0), time_stamp_(0) {}

  bool IsAAC() const { return codec_id_ == QZ_MEDIA_CODEC_ID_AAC; }
  bool IsPCMA() const { return codec_id_ == QZ_MEDIA_CODEC_ID_PCMA; }
  bool IsPCMU() const { return codec_id_ == QZ_MEDIA_CODEC_ID_PCMU; }

  QZ_MEDIA_CODEC_ID codec_id_;
  QZ_INT32 sample_rate_;
  QZ_INT32 channels_;
  QZ_UINT64 time_stamp_;     // ms, same origin as video
  long long pushed_us_ = 0;  // steady_clock µs when the frame was pushed (0: unknown)
  std::shared_ptr<QZRtspPacketData> data_;
  std::shared_ptr<QZRtspPacketData> extra_data_;
};

// A server-side consumer of records of type T. OnRtspPacket runs on the
// publisher's send thread, once per record posted into the pipe; it must hand
// the record on and return without blocking on the network. The record is
// shared and read-only.
template <class T>
class QZRtspPacketSinkerImpl {
 public:
  virtual ~QZRtspPacketSinkerImpl() = default;
  virtual void OnRtspPacket(const std::shared_ptr<T>& packet) = 0;
};

using QZRtspVideoSinker = QZRtspPacketSinkerImpl<QZRtspVideoPacket>;
using QZRtspAudioSinker = QZRtspPacketSinkerImpl<QZRtspAudioPacket>;

// The description and the record stream of one published stream. Created by
// the publisher, shared with the server that took it. Every setter copies its
// input and may be called at any time; readers on server threads see the
// newest value. Consumers are held by weak reference.
class QZRtspPacketPiple {
 public:
  explicit QZRtspPacketPiple(const std::string& stream_name);
  QZRtspPacketPiple(const QZRtspPacketPiple&) = delete;
  QZRtspPacketPiple& operator=(const QZRtspPacketPiple&) = delete;

  std::string StreamName() const;

  void IsHasAudio(bool is_has_audio);
  void IsHasVideo(bool is_has_video);
  bool IsHasAudio() const;
  bool IsHasVideo() const;

  void SetAudioCodecID(QZ_MEDIA_CODEC_ID codec_id);
  void SetVideoCodecID(QZ_MEDIA_CODEC_ID codec_id);
  QZ_MEDIA_CODEC_ID GetAudioCodecID() const;
  QZ_MEDIA_CODEC_ID GetVideoCodecID() const;

  void SetAudioInfo(QZ_INT32 sample_rate, QZ_INT32 channels);
  QZ_INT32 AudioSampleRate() const;
  QZ_INT32 AudioChannels() const;

  void SetAudioSpecificConfig(const QZ_BYTE* data, QZ_UINT32 size);
  void GetAudioSpecificConfig(std::vector<unsigned char>& config);

  void SetVideoKBitrate(QZ_UINT32 kbitrate);
  QZ_UINT32 GetVideoKBitrate() const;

  void SetSpsPps(const QZ_BYTE* sps, QZ_UINT32 sps_size, const QZ_BYTE* pps, QZ_UINT32 pps_size);
  void SetVpsSpsPps(const QZ_BYTE* vps,
                    QZ_UINT32 vps_size,
                    const QZ_BYTE* sps,
                    QZ_UINT32 sps_size,
                    const QZ_BYTE* pps,
                    QZ_UINT32 pps_size);
  void GetSpsPps(std::vector<unsigned char>& sps, std::vector<unsigned char>& pps);
  void GetVpsSpsPps(std::vector<unsigned char>& vps,
                    std::vector<unsigned char>& sps,
                    std::vector<unsigned char>& pps) const;

  // Codec predicates: the medium is declared and has that codec.
  bool IsHasH264() const;
  bool IsHasH265() const;
  bool IsHasAAC() const;
  bool IsHasPCMA() const;
  bool IsHasPCMU() const;

  void SetRtspURL(const std::string& url);
  std::string GetRtspURL() const;

  // Read and written by the publisher's send thread only; no lock.
  bool IsNotifiedRtspURL() const { return is_notified_rtsp_url_; }
  void IsNotifiedRtspURL(bool is_notified) { is_notified_rtsp_url_ = is_notified; }

  // True when every declared medium is described well enough for an SDP:
  // H.264 has SPS and PPS, H.265 VPS, SPS and PPS, AAC its configuration.
  // False with no medium, or with a video codec other than H.264 and H.265.
  bool IsHasAVConfig() const;

  // Grows by one with every change of the description, so that a server can
  // tell cheaply whether the SDP it built is still current.
  QZ_UINT64 ConfigVersion() const;

  void AddAudioSinker(std::shared_ptr<QZRtspAudioSinker>& sinker);
  void RemoveAudioSinker(std::shared_ptr<QZRtspAudioSinker>& sinker);
  void AddVideoSinker(std::shared_ptr<QZRtspVideoSinker>& sinker);
  void RemoveVideoSinker(std::shared_ptr<QZRtspVideoSinker>& sinker);

  // Hand one record to every live consumer of its kind, without copying it.
  // Consumers are called outside the pipe's locks.
  void PostAudioPacket(std::shared_ptr<QZRtspAudioPacket>& packet);
  void PostVideoPacket(std::shared_ptr<QZRtspVideoPacket>& packet);

 private:
  void GetAudioSinkers(std::vector<std::shared_ptr<QZRtspAudioSinker>>& sinkers);
  void GetVideoSinkers(std::vector<std::shared_ptr<QZRtspVideoSinker>>& sinkers);

  mutable std::recursive_mutex rmutex_;  // guards fields 2-15 below but for the notified mark
  std::string stream_name_;
  bool is_has_audio_;
  bool is_has_video_;
  QZ_MEDIA_CODEC_ID audio_codec_id_;
  QZ_MEDIA_CODEC_ID video_codec_id_;
  QZ_INT32 audio_sample_rate_;
  QZ_INT32 audio_channels_;
  std::vector<unsigned char> auido_specific_config_;
  QZ_UINT32 video_kbitrate_;
  std::vector<unsigned char> vps_;
  std::vector<unsigned char> sps_;
  std::vector<unsigned char> pps_;
  std::string rtsp_url_;
  bool is_notified_rtsp_url_;
  std::recursive_mutex sinkers_rmutex_;  // guards the two consumer lists
  std::vector<std::weak_ptr<QZRtspAudioSinker>> audio_sinkers_;
  std::vector<std::weak_ptr<QZRtspVideoSinker>> video_sinkers_;
  QZ_UINT64 config_version_ = 0;  // guarded by rmutex_
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_PACKET_PIPE_H_
