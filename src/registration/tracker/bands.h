// Work that is split into bands of rows: what a row gets does not depend on who does it.
#pragma once

#include <algorithm>

#include "registration/worker_pool.h"

namespace noxel::tracker {

// Calls work(firstRow, endRow) for bands that cover `rows`. `rowCost`: items in a row; little work is not worth waking
// anybody for.
template <class Work>
void forBands(WorkerPool* pool, int rows, int rowCost, Work&& work) {
  constexpr int kBandCost = 16384;
  const int bandRows = std::max(1, kBandCost / std::max(rowCost, 1));
  const int bands = (rows + bandRows - 1) / bandRows;
  if (pool == nullptr || bands < 2) {
    work(0, rows);
    return;
  }
  struct Job {
    Work* work;
    int bandRows;
    int rows;
  } job = {&work, bandRows, rows};
  pool->run(
      bands,
      [](void* argument, int index) {
        const Job& own = *static_cast<Job*>(argument);
        (*own.work)(index * own.bandRows, std::min((index + 1) * own.bandRows, own.rows));
      },
      &job);
}

}  // namespace noxel::tracker
