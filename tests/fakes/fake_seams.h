// A clock tests move by hand and a random source that repeats a sequence:
// the server's logic runs on them without sleeping and with ids and SSRCs
// that tests can predict.
#ifndef TESTS_FAKES_FAKE_SEAMS_H_
#define TESTS_FAKES_FAKE_SEAMS_H_

#include <atomic>

#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"

namespace qz_test {

class FakeClock : public qz_rtsp_internal_server::RtspClock {
 public:
  long long SteadyUs() const override { return steady_us_.load(); }
  unsigned long long WallUs() const override {
    return 1700000000000000ULL + static_cast<unsigned long long>(steady_us_.load());
  }
  void AdvanceMs(long long ms) { steady_us_ += ms * 1000; }

 private:
  std::atomic<long long> steady_us_{1000000000};
};

// 1, 2, 3, ...
class CountingRandom : public qz_rtsp_internal_server::RtspRandom {
 public:
  uint32_t Next32() override { return next_++; }

 private:
  std::atomic<uint32_t> next_{1};
};

}  // namespace qz_test

#endif  // TESTS_FAKES_FAKE_SEAMS_H_
