#include <atomic>
#include <thread>
#include <vector>

#include "base/qz_refcount.h"
#include "base/qz_scoped_ref_ptr.h"
#include "gtest/gtest.h"

namespace {

using qz_base::RefCountedObject;
using qz_base::scoped_refptr;

class Counted : public qz_base::RefCountInterface {
 public:
  explicit Counted(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }

 private:
  std::atomic<int>* destroyed_;
};

using CountedPtr = scoped_refptr<RefCountedObject<Counted>>;

// Self-assignment keeps the object alive; release() hands the reference
// over; swap and move leave the source empty; the last reference destroys.
TEST(ScopedRefPtrTest, OwnershipMoves) {
  std::atomic<int> destroyed{0};
  CountedPtr a(new RefCountedObject<Counted>(&destroyed));
  CountedPtr& alias = a;
  a = alias;
  a = a.get();
  EXPECT_TRUE(a->HasOneRef());
  CountedPtr b;
  auto* first = a.get();
  a.swap(b);
  EXPECT_EQ(a.get(), nullptr);
  EXPECT_EQ(b.get(), first);
  CountedPtr c(std::move(b));
  EXPECT_EQ(b.get(), nullptr);
  EXPECT_TRUE(c->HasOneRef());
  RefCountedObject<Counted>* raw = c.release();
  EXPECT_EQ(c.get(), nullptr);
  EXPECT_EQ(destroyed, 0);
  raw->Release();
  EXPECT_EQ(destroyed, 1);
  CountedPtr d(new RefCountedObject<Counted>(&destroyed));
  d = nullptr;
  EXPECT_EQ(destroyed, 2);
}

// The last release destroys the object exactly once, whichever thread does it.
TEST(ScopedRefPtrTest, ConcurrentCopiesDestroyOnce) {
  std::atomic<int> destroyed{0};
  for (int round = 0; round < 50; ++round) {
    CountedPtr shared(new RefCountedObject<Counted>(&destroyed));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([copy = shared]() mutable {
        for (int i = 0; i < 200; ++i) {
          CountedPtr local = copy;
          local = nullptr;
        }
      });
    }
    shared = nullptr;
    for (auto& t : threads) {
      t.join();
    }
  }
  EXPECT_EQ(destroyed, 50);
}

}  // namespace
