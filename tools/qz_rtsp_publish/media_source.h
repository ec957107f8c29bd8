// Where the publisher's encoded packets come from: the built-in test source
// or a media file. A source pushes packets as an app's encoder threads would.
#ifndef TOOLS_QZ_RTSP_PUBLISH_MEDIA_SOURCE_H_
#define TOOLS_QZ_RTSP_PUBLISH_MEDIA_SOURCE_H_

#include <atomic>
#include <functional>
#include <string>

#include "publisher/qz_media_define.h"

namespace qz_tools {

using PushFn = std::function<void(qz_publisher::QZ_MediaPacketRefPtr)>;

class MediaSource {
 public:
  virtual ~MediaSource() = default;
  // Prepares encoders or opens the file; false with a one-line reason.
  virtual bool Open(std::string* error) = 0;
  virtual bool has_audio() const = 0;
  virtual bool has_video() const = 0;
  // Starts the source's threads; packets go to `push` until Stop().
  virtual void Start(PushFn push) = 0;
  virtual void Stop() = 0;
  // Asks the video encoder for an IDR picture as soon as it can.
  virtual void RequestKeyFrame() {}
  // The sinker announced a stream URL. A source that encodes codes every
  // picture as a key frame until then, and one more right after: the sinker
  // sends video only from a key frame on and does not send the packets it
  // takes while it creates its pipes, so with a normal GOP the first one
  // would be dropped whole and the first viewer would wait for the next.
  virtual void OnStreamAnnounced() {}
  // Video frames the source lost because the encoder could not keep up.
  virtual long long DroppedFrames() const { return 0; }
};

// Milliseconds of the monotonic clock, the timestamps' time base.
long long MonotonicMs();

// Sleeps until MonotonicMs() reaches `deadline_ms` or `stop` is set. Pacing
// threads wake once per frame: the sleep goes to the deadline itself, in
// slices of at most 100 ms so that Stop() is noticed.
void SleepUntil(long long deadline_ms, const std::atomic<bool>& stop);

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_MEDIA_SOURCE_H_
