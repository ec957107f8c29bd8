// A small mutex class with RAII lock helper, used where the publisher's
// common services need a plain (non-recursive) lock.
#ifndef UTILITY_QZ_CMUTEX_H_
#define UTILITY_QZ_CMUTEX_H_

#include <mutex>

namespace qz_utility {

class QZCMutex {
 public:
  QZCMutex() = default;
  QZCMutex(const QZCMutex&) = delete;
  QZCMutex& operator=(const QZCMutex&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  bool TryLock() { return mutex_.try_lock(); }

  // BasicLockable, so std::lock_guard<QZCMutex> works too.
  void lock() { Lock(); }
  void unlock() { Unlock(); }

 private:
  std::mutex mutex_;
};

class QZCAutoLock {
 public:
  explicit QZCAutoLock(QZCMutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~QZCAutoLock() { mutex_.Unlock(); }
  QZCAutoLock(const QZCAutoLock&) = delete;
  QZCAutoLock& operator=(const QZCAutoLock&) = delete;

 private:
  QZCMutex& mutex_;
};

}  // namespace qz_utility

#endif  // UTILITY_QZ_CMUTEX_H_
