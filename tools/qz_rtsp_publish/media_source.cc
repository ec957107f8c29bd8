#include "tools/qz_rtsp_publish/media_source.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace qz_tools {

long long MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void SleepUntil(long long deadline_ms, const std::atomic<bool>& stop) {
  constexpr long long kStopCheckMs = 100;
  const auto deadline =
      std::chrono::steady_clock::time_point(std::chrono::milliseconds(deadline_ms));
  while (!stop.load()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      return;
    }
    std::this_thread::sleep_until(
        std::min(deadline, now + std::chrono::milliseconds(kStopCheckMs)));
  }
}

}  // namespace qz_tools
