// Paces what one client is sent to a multiple of its stream's bit rate, as
// a token bucket. A client that joins (or resumes after a PAUSE) is sent the
// cached group of pictures from its key frame on: unpaced, that is seconds
// of video at once, which overflows UDP clients' receive buffers at high
// bit rates and lets a PAUSE/PLAY loop pull many times the stream's rate.
// Paced, catching up takes about a second and nothing a client does gets it
// more than kRateFactor times the rate over time (plus one burst). Live
// media, at the stream's own rate, passes unhindered.
#ifndef PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_PACER_H_
#define PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_PACER_H_

#include <cstddef>

namespace qz_rtsp_internal_server {

class RtspPacer {
 public:
  static constexpr double kRateFactor = 2.75;
  // The bucket holds this long of sending at the paced rate, so that a key
  // frame of live video goes out at once.
  static constexpr long long kBurstUs = 250000;
  // A stream whose rate is not measured yet (its first second) is paced as
  // if it were this fast.
  static constexpr size_t kMinByteRate = 32 * 1024;

  // Adds what the time since the last call allows at `stream_byte_rate`
  // (bytes per second); the first call fills the bucket.
  void Refill(long long now_us, size_t stream_byte_rate);
  bool Allows() const { return tokens_ > 0; }
  void Spend(size_t bytes) { tokens_ -= static_cast<double>(bytes); }
  // How long until Allows() again, at the rate of the last Refill().
  long long WaitUs() const;

 private:
  double tokens_ = 0;
  double bytes_per_us_ = 0;
  long long last_us_ = -1;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_PACER_H_
