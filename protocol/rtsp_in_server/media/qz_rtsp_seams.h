// What the server asks of the world outside: the time and random numbers.
// Both are injected, so that tests run a server's logic on a clock they move
// by hand and with numbers they choose, without sleeping.
#ifndef PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_SEAMS_H_
#define PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_SEAMS_H_

#include <cstdint>
#include <mutex>

namespace qz_rtsp_internal_server {

class RtspClock {
 public:
  virtual ~RtspClock() = default;
  // Monotonic microseconds (timeouts, delays, rates).
  virtual long long SteadyUs() const = 0;
  // Wall-clock microseconds since the Unix epoch (RTCP's NTP field).
  virtual unsigned long long WallUs() const = 0;
  long long SteadyMs() const { return SteadyUs() / 1000; }

  // The steady and system clocks of the standard library.
  static const RtspClock& System();
};

// Session ids, SSRCs and initial sequence numbers and RTP times: guessing
// them lets a stranger hijack or inject into a session, so the default
// source is the system's cryptographic generator. Any thread.
class RtspRandom {
 public:
  virtual ~RtspRandom() = default;
  virtual uint32_t Next32() = 0;
  uint64_t Next64() { return (static_cast<uint64_t>(Next32()) << 32) | Next32(); }

  // OpenSSL's CSPRNG.
  static RtspRandom& Crypto();
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_SEAMS_H_
