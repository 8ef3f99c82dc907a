#include "registration/worker_pool.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace noxel {
namespace {

// Threads lent to a pool.
struct Lent {
  Lent(WorkerPool* lentTo, int count) : pool(lentTo) {
    for (int i = 0; i < count; ++i) threads.emplace_back([this] { pool->serve(); });
  }
  ~Lent() {
    pool->stop();
    for (std::thread& thread : threads) thread.join();
  }
  WorkerPool* pool;
  std::vector<std::thread> threads;
};

TEST(WorkerPool, EachItemIsDoneOnceAndSeenByTheCaller) {
  for (int workers = 0; workers <= 4; ++workers) {
    WorkerPool pool;
    const Lent lent(&pool, workers);
    for (const int items : {0, 1, 3, 1000, 2, 1000}) {
      // Plain integers: a result that is not handed over shows under a thread sanitizer, one done twice here.
      std::vector<int> done(static_cast<size_t>(items));
      for (int run = 1; run <= 50; ++run) {
        pool.run(
            items, [](void* job, int index) { ++(*static_cast<std::vector<int>*>(job))[static_cast<size_t>(index)]; },
            &done);
        ASSERT_EQ(done, std::vector<int>(static_cast<size_t>(items), run)) << workers << " workers, " << items;
      }
    }
  }
}

TEST(WorkerPool, StopEndsWorkersThatWaitAndThoseToCome) {
  WorkerPool pool;
  { const Lent idle(&pool, 3); }
  pool.serve();  // hangs when a stop is forgotten
  int done = 0;
  pool.run(
      7, [](void* job, int) { ++*static_cast<int*>(job); }, &done);
  EXPECT_EQ(done, 7) << "the caller does it alone";
}

}  // namespace
}  // namespace noxel
