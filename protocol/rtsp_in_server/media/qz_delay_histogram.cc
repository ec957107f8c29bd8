#include "protocol/rtsp_in_server/media/qz_delay_histogram.h"

#include <algorithm>
#include <cmath>

namespace qz_rtsp_internal_server {

long long DelayHistogram::BucketLimitUs(int i) {
  return static_cast<long long>(
      std::ceil(std::exp2(static_cast<double>(i + 1) / kBucketsPerDoubling)));
}

int DelayHistogram::BucketOf(long long us) {
  if (us <= 1) {
    return 0;
  }
  const int i =
      static_cast<int>(std::ceil(std::log2(static_cast<double>(us)) * kBucketsPerDoubling)) - 1;
  // Rounding at a bucket's edge: step to the bucket whose limit holds `us`.
  int bucket = std::clamp(i, 0, kBuckets - 1);
  while (bucket < kBuckets - 1 && BucketLimitUs(bucket) < us) {
    ++bucket;
  }
  return bucket;
}

void DelayHistogram::Add(long long us) {
  us = std::max(us, 0LL);
  buckets_[static_cast<size_t>(BucketOf(us))].fetch_add(1, std::memory_order_relaxed);
  count_.fetch_add(1, std::memory_order_relaxed);
  if (us > max_us_.load(std::memory_order_relaxed)) {
    max_us_.store(us, std::memory_order_relaxed);  // single writer
  }
}

std::vector<unsigned long long> DelayHistogram::Counts() const {
  std::vector<unsigned long long> counts(kBuckets);
  for (int i = 0; i < kBuckets; ++i) {
    counts[static_cast<size_t>(i)] =
        buckets_[static_cast<size_t>(i)].load(std::memory_order_relaxed);
  }
  return counts;
}

long long DelayHistogram::PercentileOfCountsUs(const std::vector<unsigned long long>& counts,
                                               double fraction) {
  unsigned long long total = 0;
  for (unsigned long long c : counts) {
    total += c;
  }
  if (total == 0) {
    return 0;
  }
  const auto rank = std::max(
      1ULL, static_cast<unsigned long long>(std::ceil(fraction * static_cast<double>(total))));
  unsigned long long seen = 0;
  for (size_t i = 0; i < counts.size(); ++i) {
    seen += counts[i];
    if (seen >= rank) {
      return BucketLimitUs(static_cast<int>(i));
    }
  }
  return BucketLimitUs(static_cast<int>(counts.size()) - 1);
}

long long DelayHistogram::PercentileUs(double fraction) const {
  return count() == 0 ? 0 : std::min(PercentileOfCountsUs(Counts(), fraction), max_us());
}

QZRtspDelayStats DelayHistogram::Stats() const {
  QZRtspDelayStats stats;
  stats.samples = count();
  stats.p50_us = PercentileUs(0.50);
  stats.p99_us = PercentileUs(0.99);
  stats.max_us = max_us();
  stats.counts = Counts();
  return stats;
}

}  // namespace qz_rtsp_internal_server
