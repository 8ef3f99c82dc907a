#include "kernels/worker_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "kernels/row_jobs.h"
#include "lent_threads.h"

namespace noxel {
namespace {

void countItem(void* counts, int index) {
  ++static_cast<int*>(counts)[index];
}

TEST(WorkerPool, DoesEachItemOnceAndHandsOverItsResult) {
  for (int workers = 0; workers <= 4; ++workers) {
    WorkerPool pool;
    const Lent lent(&pool, workers);
    for (const int items : {0, 1, 3, 1000, 2, 1000}) {
      // Plain integers: an item done twice shows here, a missing hand-over under a thread sanitizer.
      std::vector<int> done(static_cast<size_t>(items));
      for (int run = 1; run <= 50; ++run) {
        pool.run(items, countItem, done.data());
        ASSERT_EQ(done, std::vector<int>(static_cast<size_t>(items), run)) << workers << " workers, " << items;
      }
    }
  }
}

TEST(WorkerPool, StopEndsWaitingAndFutureWorkers) {
  WorkerPool pool;
  { const Lent idle(&pool, 3); }
  pool.serve();  // hangs unless the stop is remembered
  int done[7] = {};
  pool.run(7, countItem, done);
  EXPECT_EQ(std::count(done, done + 7, 1), 7) << "the caller does it alone";
}

TEST(RowBlocks, CoverEachRowOnceInBlocksOfTheSizeAskedFor) {
  WorkerPool pool;
  const Lent lent(&pool, 2);
  for (WorkerPool* helped : {static_cast<WorkerPool*>(nullptr), &pool}) {
    for (const auto& [rows, rowsPerBlock] :
         {std::pair{0, 3}, {1, 3}, {5, 3}, {6, 3}, {100, 7}, {7, 1}, {2000000000, 500000000}}) {
      SCOPED_TRACE(testing::Message() << rows << " rows by " << rowsPerBlock << (helped == nullptr ? ", alone" : ""));
      std::mutex mutex;
      std::vector<std::pair<int, int>> blocks;
      forEachRowBlock(helped, rows, rowsPerBlock, [&](int begin, int end) {
        const std::lock_guard lock(mutex);
        blocks.emplace_back(begin, end);
      });
      std::sort(blocks.begin(), blocks.end());
      int next = 0;
      for (const auto& [begin, end] : blocks) {
        EXPECT_EQ(begin, next);
        if (helped != nullptr && rows >= rowsPerBlock) {
          EXPECT_TRUE(end - begin >= rowsPerBlock && end - begin < 2 * rowsPerBlock) << end - begin;
        }
        next = end;
      }
      EXPECT_EQ(next, rows);
      EXPECT_TRUE(helped != nullptr || blocks.size() <= 1);
    }
  }
}

}  // namespace
}  // namespace noxel
