// Percentiles read from the delay histogram are within one bucket (9 %)
// above the true value and never above the largest value counted, also over
// a window taken as the difference of two copies of the counts.
#include "protocol/rtsp_in_server/media/qz_delay_histogram.h"

#include <cmath>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// The ratio from one bucket's limit to the next.
const double kStep = std::exp2(1.0 / DelayHistogram::kBucketsPerDoubling);

struct PercentileCase {
  const char* name;
  std::vector<long long> values_us;
  double fraction;
  long long exact_us;  // the true quantile
};

class DelayHistogramTest : public ::testing::TestWithParam<PercentileCase> {};

TEST_P(DelayHistogramTest, PercentileIsWithinOneBucketAbove) {
  const PercentileCase& c = GetParam();
  DelayHistogram h;
  for (long long v : c.values_us) {
    h.Add(v);
  }
  const long long p = h.PercentileUs(c.fraction);
  EXPECT_GE(p, c.exact_us);
  EXPECT_LE(static_cast<double>(p), static_cast<double>(c.exact_us) * kStep + 1);
  EXPECT_LE(p, h.max_us());
}

std::vector<long long> Range(long long from, long long to) {
  std::vector<long long> v;
  for (long long i = from; i <= to; ++i) {
    v.push_back(i);
  }
  return v;
}

INSTANTIATE_TEST_SUITE_P(
    Values,
    DelayHistogramTest,
    ::testing::Values(PercentileCase{"Single", {1500}, 0.99, 1500},
                      PercentileCase{"MedianOfRange", Range(1, 1000), 0.5, 500},
                      PercentileCase{"P99OfRange", Range(1, 1000), 0.99, 990},
                      PercentileCase{"Zero", {0, 0, 0}, 0.5, 0},
                      PercentileCase{"Seconds", {3000000, 5000000, 70000000}, 0.5, 5000000},
                      PercentileCase{"OneOutlier", {100, 100, 100, 100, 90000}, 0.5, 100}),
    [](const ::testing::TestParamInfo<PercentileCase>& info) {
      return std::string(info.param.name);
    });

TEST(DelayHistogramWindowTest, DifferenceOfCountsCoversOnlyTheWindow) {
  DelayHistogram h;
  for (int i = 0; i < 1000; ++i) {
    h.Add(50000);  // before the window: slow
  }
  const std::vector<unsigned long long> before = h.Counts();
  for (int i = 0; i < 100; ++i) {
    h.Add(200);
  }
  std::vector<unsigned long long> window = h.Counts();
  for (size_t i = 0; i < window.size(); ++i) {
    window[i] -= before[i];
  }
  const long long p99 = DelayHistogram::PercentileOfCountsUs(window, 0.99);
  EXPECT_GE(p99, 200);
  EXPECT_LE(p99, 200 * kStep + 1);
  EXPECT_EQ(
      DelayHistogram::PercentileOfCountsUs(std::vector<unsigned long long>(window.size()), 0.5), 0);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
