#include "kernels/worker_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "kernels/row_jobs.h"
#include "lent_threads.h"

namespace noxel {
namespace {

TEST(WorkerPool, DoesEachItemOnceAndHandsOverItsResult) {
  for (int workers = 0; workers <= 4; ++workers) {
    WorkerPool pool;
    const Lent lent(&pool, workers);
    for (const int items : {0, 1, 3, 1000, 2, 1000}) {
      // Plain integers: an item done twice shows here, a missing hand-over under a thread sanitizer.
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

TEST(WorkerPool, StopEndsWaitingAndFutureWorkers) {
  WorkerPool pool;
  { const Lent idle(&pool, 3); }
  pool.serve();  // hangs unless the stop is remembered
  int done = 0;
  pool.run(
      7, [](void* job, int) { ++*static_cast<int*>(job); }, &done);
  EXPECT_EQ(done, 7) << "the caller does it alone";
}

TEST(RowBlocks, CoverEachRowOnceInBlocksOfTheSizeAskedFor) {
  WorkerPool pool;
  const Lent lent(&pool, 2);
  for (WorkerPool* helped : {static_cast<WorkerPool*>(nullptr), &pool}) {
    for (const auto& [rows, rowsPerBlock] :
         {std::pair{0, 3}, {1, 3}, {5, 3}, {6, 3}, {100, 7}, {7, 1}, {2000000000, 500000000}}) {
      SCOPED_TRACE(testing::Message() << rows << " rows by " << rowsPerBlock << (helped == nullptr ? ", alone" : ""));
      pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
      std::vector<std::pair<int, int>> blocks;
      forEachRowBlock(helped, rows, rowsPerBlock, [&](int begin, int end) {
        pthread_mutex_lock(&mutex);
        blocks.emplace_back(begin, end);
        pthread_mutex_unlock(&mutex);
      });
      std::sort(blocks.begin(), blocks.end());
      int next = 0;
      for (const auto& [begin, end] : blocks) {
        EXPECT_EQ(begin, next);
        if (helped != nullptr && rows >= rowsPerBlock) {
          EXPECT_GE(end - begin, rowsPerBlock);
          EXPECT_LT(end - begin, 2 * rowsPerBlock);
        }
        next = end;
      }
      EXPECT_EQ(next, rows);
      if (helped == nullptr) {
        EXPECT_LE(blocks.size(), 1u);
      }
    }
  }
}

}  // namespace
}  // namespace noxel
