// Intrusive reference counting: RefCountInterface is the base of every
// counted object, RefCountedObject<T> adds the counter to a concrete T.
#ifndef BASE_QZ_REFCOUNT_H_
#define BASE_QZ_REFCOUNT_H_

#include <utility>

namespace qz_base {

class RefCountInterface {
 public:
  virtual int AddRef() = 0;
  virtual int Release() = 0;

 protected:
  virtual ~RefCountInterface() {}
};

// Adds an atomic reference count to T. Objects are created with a count of 0
// and destroyed by the Release that brings the count back to 0, on whichever
// thread that happens.
template <class T>
class RefCountedObject : public T {
 public:
  RefCountedObject() : ref_count_(0) {}

  template <typename... Args>
  explicit RefCountedObject(Args&&... args) : T(std::forward<Args>(args)...), ref_count_(0) {}

  RefCountedObject(const RefCountedObject&) = delete;
  RefCountedObject& operator=(const RefCountedObject&) = delete;

  // Both return the new count.
  int AddRef() override { return __atomic_add_fetch(&ref_count_, 1, __ATOMIC_RELAXED); }

  int Release() override {
    const int count = __atomic_sub_fetch(&ref_count_, 1, __ATOMIC_ACQ_REL);
    if (count == 0) {
      delete this;
    }
    return count;
  }

 protected:
  ~RefCountedObject() override {}

 public:
  virtual bool HasOneRef() const { return __atomic_load_n(&ref_count_, __ATOMIC_ACQUIRE) == 1; }

 private:
  volatile int ref_count_;
};

}  // namespace qz_base

#endif  // BASE_QZ_REFCOUNT_H_
