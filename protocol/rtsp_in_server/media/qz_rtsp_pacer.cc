#include "protocol/rtsp_in_server/media/qz_rtsp_pacer.h"

#include <algorithm>

namespace qz_rtsp_internal_server {

void RtspPacer::Refill(long long now_us, size_t stream_byte_rate) {
  bytes_per_us_ = kRateFactor * static_cast<double>(std::max(stream_byte_rate, kMinByteRate)) / 1e6;
  const double burst = bytes_per_us_ * static_cast<double>(kBurstUs);
  if (last_us_ < 0) {
    tokens_ = burst;
  } else if (now_us > last_us_) {
    tokens_ = std::min(burst, tokens_ + bytes_per_us_ * static_cast<double>(now_us - last_us_));
  }
  last_us_ = std::max(last_us_, now_us);
}

long long RtspPacer::WaitUs() const {
  if (tokens_ > 0 || bytes_per_us_ <= 0) {
    return 0;
  }
  return static_cast<long long>((1.0 - tokens_) / bytes_per_us_) + 1;
}

}  // namespace qz_rtsp_internal_server
