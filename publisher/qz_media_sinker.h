// The interface through which the publisher pipeline feeds each of its
// outputs (RTMP, MP4, RTSP, ...).
#ifndef PUBLISHER_QZ_MEDIA_SINKER_H_
#define PUBLISHER_QZ_MEDIA_SINKER_H_

#include "publisher/qz_media_define.h"
#include "topcommon/qz_type_define.h"

namespace qz_publisher {

class MediaSinker {
 public:
  enum SinkerType {
    SinkerTypeUnknown = 0,
    SinkerTypeRtmp = 1,
    SinkerTypeMp4 = 2,
    SinkerTypeRtsp = 3,
    SinkerTypePushRtsp = 4,
    SinkerTypeOutputEncodedData = 5,
  };

  virtual ~MediaSinker() {}
  virtual bool Start() = 0;
  virtual void Stop() = 0;
  // The handle is taken by value: the callee holds its own reference.
  virtual void PushPacket(QZ_MediaPacketRefPtr packet) = 0;
  virtual QZ_INT32 GetType() const = 0;
};

}  // namespace qz_publisher

#endif  // PUBLISHER_QZ_MEDIA_SINKER_H_
