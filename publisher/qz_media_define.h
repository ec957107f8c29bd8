// The encoded media packet that the publisher hands to every sink, its
// reference-counted handle, and the H.264 NAL unit types the sinks look for.
#ifndef PUBLISHER_QZ_MEDIA_DEFINE_H_
#define PUBLISHER_QZ_MEDIA_DEFINE_H_

#include <map>
#include <string>
#include <vector>

#include "base/qz_refcount.h"
#include "base/qz_scoped_ref_ptr.h"
#include "topcommon/qz_common_media_define.h"
#include "topcommon/qz_type_define.h"

namespace qz_publisher {

enum QZ_H264_NAL_TYPE {
  QZ_H264_NAL_SLICE_TYPE = 1,  // coded slice of a non-IDR picture
  QZ_H264_NAL_IDR_TYPE = 5,    // coded slice of an IDR picture
  QZ_H264_NAL_SEI_TYPE = 6,
  QZ_H264_NAL_SPS_TYPE = 7,
  QZ_H264_NAL_PPS_TYPE = 8,
};

// nal_unit_type of an H.264 NAL unit header byte (its low five bits).
inline int GetH264NalType(QZ_BYTE val) {
  return val & 0x1F;
}

// One encoded access unit (video) or frame (audio). Filled by its encoder
// before it is handed out and read-only afterwards, so any thread may read
// it while it holds a reference.
//
// The payload passed to the constructors is copied: the packet owns its
// bytes. SetVideoInfo/SetAudioInfo copy the pointed-to value as well (null
// clears it); the caller keeps ownership of its argument.
class QZMediaPacket : public qz_base::RefCountInterface {
 public:
  enum MediaType {
    MediaTypeUnKnown = 0,
    MediaTypeVideo = 1,
    MediaTypeAudio = 2,
  };

  struct VideoInfo {
    VideoInfo(int width, int height) : width_(width), height_(height) {}
    int width_;
    int height_;
  };

  struct AudioInfo {
    AudioInfo(int sample_rate, int channels) : sample_rate_(sample_rate), channels_(channels) {}
    int sample_rate_;  // Hz
    int channels_;
  };

  QZMediaPacket(MediaType media_type,
                QZ_MEDIA_CODEC_ID codec_id,
                const QZ_BYTE* data,
                int size,
                bool is_key_frame,
                long long time_stamp);
  QZMediaPacket(MediaType media_type,
                QZ_MEDIA_CODEC_ID codec_id,
                const QZ_BYTE* data,
                int size,
                bool is_key_frame,
                long long time_stamp,
                long long pts);
  virtual ~QZMediaPacket();

  QZMediaPacket(const QZMediaPacket&) = delete;
  QZMediaPacket& operator=(const QZMediaPacket&) = delete;

  MediaType GetMediaType() const { return mediaType_; }
  QZ_MEDIA_CODEC_ID CodecID() const { return codecID_; }
  QZ_BYTE* Data() const { return data_; }
  int Size() const { return size_; }

  void SetVideoInfo(VideoInfo* info);
  VideoInfo* GetVideoInfo() const { return videoInfo_; }
  void SetAudioInfo(AudioInfo* info);
  AudioInfo* GetAudioInfo() const { return audioInfo_; }

  void SetExtraData(const std::string& key, const std::vector<QZ_BYTE>& value);
  // A copy of the value under `key`, or an empty vector when it is absent.
  std::vector<QZ_BYTE> GetExtraData(const std::string& key) const;

  bool IsKeyFrame() const { return isKeyFrame_; }
  long long TimeStamp() const { return time_stamp_; }
  long long PTS() const { return pts_; }
  int Duration() const { return duration_; }
  void Duration(int duration) { duration_ = duration; }

 private:
  MediaType mediaType_;
  QZ_MEDIA_CODEC_ID codecID_;
  VideoInfo* videoInfo_;
  AudioInfo* audioInfo_;
  QZ_BYTE* data_;
  int size_;
  std::map<std::string, std::vector<QZ_BYTE>> extraData_;
  long long time_stamp_;
  long long pts_;
  int duration_;
  bool isKeyFrame_;
};

typedef qz_base::scoped_refptr<qz_base::RefCountedObject<QZMediaPacket>> QZ_MediaPacketRefPtr;

}  // namespace qz_publisher

#endif  // PUBLISHER_QZ_MEDIA_DEFINE_H_
