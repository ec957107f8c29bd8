#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"

#include <openssl/rand.h>

#include <chrono>
#include <random>

namespace qz_rtsp_internal_server {
namespace {

class SystemClock : public RtspClock {
 public:
  long long SteadyUs() const override {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  unsigned long long WallUs() const override {
    return static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                               std::chrono::system_clock::now().time_since_epoch())
                                               .count());
  }
};

class CryptoRandom : public RtspRandom {
 public:
  uint32_t Next32() override {
    uint32_t value = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&value), sizeof(value)) == 1) {
      return value;
    }
    // OpenSSL could not seed itself (it practically never happens): the
    // platform's source rather than a fixed value.
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<uint32_t>(device_());
  }

 private:
  std::mutex mutex_;
  std::random_device device_;
};

}  // namespace

const RtspClock& RtspClock::System() {
  static const SystemClock clock;
  return clock;
}

RtspRandom& RtspRandom::Crypto() {
  static CryptoRandom random;
  return random;
}

}  // namespace qz_rtsp_internal_server
