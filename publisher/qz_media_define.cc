#include "publisher/qz_media_define.h"

#include <cstring>
#include <new>

namespace qz_publisher {

QZMediaPacket::QZMediaPacket(MediaType media_type,
                             QZ_MEDIA_CODEC_ID codec_id,
                             const QZ_BYTE* data,
                             int size,
                             bool is_key_frame,
                             long long time_stamp)
    : QZMediaPacket(media_type, codec_id, data, size, is_key_frame, time_stamp, time_stamp) {}

QZMediaPacket::QZMediaPacket(MediaType media_type,
                             QZ_MEDIA_CODEC_ID codec_id,
                             const QZ_BYTE* data,
                             int size,
                             bool is_key_frame,
                             long long time_stamp,
                             long long pts)
    : mediaType_(media_type),
      codecID_(codec_id),
      videoInfo_(nullptr),
      audioInfo_(nullptr),
      data_(nullptr),
      size_(0),
      time_stamp_(time_stamp),
      pts_(pts),
      duration_(0),
      isKeyFrame_(is_key_frame) {
  // An exhausted allocator leaves an empty packet, which every sink skips,
  // rather than throwing on the encoder thread.
  if (data != nullptr && size > 0) {
    data_ = new (std::nothrow) QZ_BYTE[static_cast<size_t>(size)];
    if (data_ != nullptr) {
      std::memcpy(data_, data, static_cast<size_t>(size));
      size_ = size;
    }
  }
}

QZMediaPacket::~QZMediaPacket() {
  delete[] data_;
  delete videoInfo_;
  delete audioInfo_;
}

void QZMediaPacket::SetVideoInfo(VideoInfo* info) {
  delete videoInfo_;
  videoInfo_ = info ? new (std::nothrow) VideoInfo(*info) : nullptr;
}

void QZMediaPacket::SetAudioInfo(AudioInfo* info) {
  delete audioInfo_;
  audioInfo_ = info ? new (std::nothrow) AudioInfo(*info) : nullptr;
}

void QZMediaPacket::SetExtraData(const std::string& key, const std::vector<QZ_BYTE>& value) {
  extraData_[key] = value;
}

std::vector<QZ_BYTE> QZMediaPacket::GetExtraData(const std::string& key) const {
  auto it = extraData_.find(key);
  if (it == extraData_.end()) {
    return std::vector<QZ_BYTE>();
  }
  return it->second;
}

}  // namespace qz_publisher
