// Percentiles read from the delay histogram are within one bucket (9 %)
// above the true value and never above the largest value counted, also over
// a window taken as the difference of two copies of the counts.
#include "protocol/rtsp_in_server/media/qz_delay_histogram.h"

#include <cmath>
#include <numeric>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

TEST(DelayHistogramTest, PercentileIsWithinOneBucketAbove) {
  // The ratio from one bucket's limit to the next.
  const double step = std::exp2(1.0 / DelayHistogram::kBucketsPerDoubling);
  std::vector<long long> range(1000);  // 1 to 1000
  std::iota(range.begin(), range.end(), 1);
  struct Case {
    const char* name;
    std::vector<long long> before_us;  // counted before the window
    std::vector<long long> values_us;  // in the window
    double fraction;
    long long exact_us;  // the true quantile of the window
  };
  const Case cases[] = {
      {"single", {}, {1500}, 0.99, 1500},
      {"median_of_range", {}, range, 0.5, 500},
      {"p99_of_range", {}, range, 0.99, 990},
      {"zero", {}, {0, 0, 0}, 0.5, 0},
      {"nothing", {}, {}, 0.5, 0},
      {"seconds", {}, {3000000, 5000000, 70000000}, 0.5, 5000000},
      {"one_outlier", {}, {100, 100, 100, 100, 90000}, 0.5, 100},
      {"empty_window", {50000}, {}, 0.5, 0},
      {"window_after_slow_values", std::vector<long long>(1000, 50000),
       std::vector<long long>(100, 200), 0.99, 200},
  };
  for (const Case& c : cases) {
    DelayHistogram h;
    for (long long v : c.before_us) {
      h.Add(v);
    }
    const std::vector<unsigned long long> before = h.Counts();
    for (long long v : c.values_us) {
      h.Add(v);
    }
    std::vector<unsigned long long> window = h.Counts();
    for (size_t i = 0; i < window.size(); ++i) {
      window[i] -= before[i];
    }
    // Without a window, the histogram's own reading, capped at the largest value.
    const long long p = c.before_us.empty()
                            ? h.PercentileUs(c.fraction)
                            : DelayHistogram::PercentileOfCountsUs(window, c.fraction);
    EXPECT_GE(p, c.exact_us) << c.name;
    EXPECT_LE(static_cast<double>(p), static_cast<double>(c.exact_us) * step + 1) << c.name;
    EXPECT_LE(p, h.max_us()) << c.name;
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
