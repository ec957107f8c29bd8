// scoped_refptr<T>: an owning handle to an intrusively counted T. Copies add
// a reference, destruction releases one; null is allowed everywhere.
#ifndef BASE_QZ_SCOPED_REF_PTR_H_
#define BASE_QZ_SCOPED_REF_PTR_H_

#include <utility>

namespace qz_base {

template <class T>
class scoped_refptr {
 public:
  scoped_refptr() : ptr_(nullptr) {}

  scoped_refptr(T* p) : ptr_(p) {  // NOLINT(runtime/explicit): as raw pointers convert
    if (ptr_) {
      ptr_->AddRef();
    }
  }

  scoped_refptr(const scoped_refptr<T>& r) : ptr_(r.ptr_) {
    if (ptr_) {
      ptr_->AddRef();
    }
  }

  template <typename U>
  scoped_refptr(const scoped_refptr<U>& r) : ptr_(r.get()) {  // NOLINT(runtime/explicit)
    if (ptr_) {
      ptr_->AddRef();
    }
  }

  scoped_refptr(scoped_refptr<T>&& r) noexcept : ptr_(r.release()) {}

  ~scoped_refptr() {
    if (ptr_) {
      ptr_->Release();
    }
  }

  T* get() const { return ptr_; }
  operator T*() const { return ptr_; }
  T* operator->() const { return ptr_; }

  // Gives up the pointer without releasing it; the handle becomes null and
  // the caller takes over the reference.
  T* release() {
    T* retVal = ptr_;
    ptr_ = nullptr;
    return retVal;
  }

  // The new pointer is referenced before the old one is released, so
  // assigning a handle to itself is safe.
  scoped_refptr<T>& operator=(T* p) {
    if (p) {
      p->AddRef();
    }
    if (ptr_) {
      ptr_->Release();
    }
    ptr_ = p;
    return *this;
  }

  scoped_refptr<T>& operator=(const scoped_refptr<T>& r) { return *this = r.ptr_; }

  template <typename U>
  scoped_refptr<T>& operator=(const scoped_refptr<U>& r) {
    return *this = r.get();
  }

  scoped_refptr<T>& operator=(scoped_refptr<T>&& r) noexcept {
    scoped_refptr<T>(std::move(r)).swap(*this);
    return *this;
  }

  void swap(T** pp) {
    T* p = ptr_;
    ptr_ = *pp;
    *pp = p;
  }

  void swap(scoped_refptr<T>& r) { swap(&r.ptr_); }

 protected:
  T* ptr_;
};

}  // namespace qz_base

#endif  // BASE_QZ_SCOPED_REF_PTR_H_
