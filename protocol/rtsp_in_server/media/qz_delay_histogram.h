// Counts durations in microseconds into logarithmic buckets (eight per
// doubling, so a percentile is read to within 9 %), from 1 µs to about
// 70 s. Written by one thread, read by any: the counts are atomics.
#ifndef PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_DELAY_HISTOGRAM_H_
#define PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_DELAY_HISTOGRAM_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_server.h"

namespace qz_rtsp_internal_server {

class DelayHistogram {
 public:
  static constexpr int kBucketsPerDoubling = 8;
  static constexpr int kBuckets = 26 * kBucketsPerDoubling;

  void Add(long long us);
  unsigned long long count() const { return count_.load(std::memory_order_relaxed); }
  long long max_us() const { return max_us_.load(std::memory_order_relaxed); }
  // The upper bound of the bucket holding the `fraction` quantile (0 when
  // nothing was counted), capped at the largest value seen.
  long long PercentileUs(double fraction) const;
  // Upper bound, in µs, of bucket `i`.
  static long long BucketLimitUs(int i);
  // The counts per bucket, for percentiles over a window: subtract an
  // earlier copy and pass the difference to PercentileOfCountsUs().
  std::vector<unsigned long long> Counts() const;
  static long long PercentileOfCountsUs(const std::vector<unsigned long long>& counts,
                                        double fraction);
  // Samples, p50, p99, max and the counts.
  QZRtspDelayStats Stats() const;

 private:
  static int BucketOf(long long us);

  std::array<std::atomic<unsigned long long>, kBuckets> buckets_{};
  std::atomic<unsigned long long> count_{0};
  std::atomic<long long> max_us_{0};
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_DELAY_HISTOGRAM_H_
