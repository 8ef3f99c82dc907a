// Splits work into blocks of rows. The result of a row must not depend on its thread or block.
#pragma once

#include <cstdint>

#include "kernels/worker_pool.h"

namespace noxel {

// Calls work(firstRow, endRow) for blocks that cover `rows`, on the calling thread and the pool's helpers; returns when
// all are done. Blocks have rowsPerBlock to 2 * rowsPerBlock - 1 rows; with fewer than two blocks, or without a pool,
// the calling thread does all rows in one call.
template <class Work>
void forEachRowBlock(WorkerPool* pool, int rows, int rowsPerBlock, const Work& work) {
  const int blocks = rows / rowsPerBlock;
  if (pool == nullptr || blocks < 2) {
    if (rows > 0) work(0, rows);
    return;
  }
  struct Job {
    const Work* work;
    int64_t rows;
    int blocks;
    int first(int block) const { return static_cast<int>(rows * block / blocks); }
  } job = {&work, rows, blocks};
  pool->run(
      blocks,
      [](void* argument, int index) {
        const Job& own = *static_cast<Job*>(argument);
        (*own.work)(own.first(index), own.first(index + 1));
      },
      &job);
}

}  // namespace noxel
