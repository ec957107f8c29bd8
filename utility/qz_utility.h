// Millisecond clock and sleep of the publisher, with a seam through which
// tests replace both by a fake time source.
#ifndef UTILITY_QZ_UTILITY_H_
#define UTILITY_QZ_UTILITY_H_

#include "topcommon/qz_type_define.h"

namespace qz_utility {

// Monotonic milliseconds (not wall-clock time).
QZ_UINT64 GetCurrentTimeMS();

// Sleeps for `ms` milliseconds; values below 1 return at once.
void SleepMs(int ms);

// Replacement for the clock and the sleep, for tests only.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  virtual QZ_UINT64 NowMs() = 0;
  virtual void SleepMs(int ms) = 0;
};

// Installs `source` for the whole process; null restores the real clock.
// The caller keeps ownership and must keep it alive until it is replaced.
void SetTimeSourceForTesting(TimeSource* source);

}  // namespace qz_utility

#endif  // UTILITY_QZ_UTILITY_H_
