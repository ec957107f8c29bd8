#include "utility/qz_utility.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace qz_utility {
namespace {

std::atomic<TimeSource*> g_time_source{nullptr};

}  // namespace

QZ_UINT64 GetCurrentTimeMS() {
  if (TimeSource* source = g_time_source.load()) {
    return source->NowMs();
  }
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<QZ_UINT64>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void SleepMs(int ms) {
  if (TimeSource* source = g_time_source.load()) {
    source->SleepMs(ms);
    return;
  }
  if (ms < 1) {
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void SetTimeSourceForTesting(TimeSource* source) {
  g_time_source.store(source);
}

}  // namespace qz_utility
