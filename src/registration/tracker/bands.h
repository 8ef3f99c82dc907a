// Splits work into bands of rows; the result does not depend on the number of threads.
#pragma once

#include <algorithm>
#include <cstdint>

#include "kernels/row_jobs.h"

namespace noxel::tracker {

// Calls work(firstRow, endRow) for bands that cover `rows`. rowCost: items per row; too little work wakes no helper.
template <class Work>
void forBands(WorkerPool* pool, int rows, int64_t rowCost, const Work& work) {
  constexpr int64_t kBandCost = 16384;
  const int64_t rowsPerBand = kBandCost / std::max<int64_t>(rowCost, 1);
  forEachRowBlock(pool, rows, static_cast<int>(std::max<int64_t>(rowsPerBand, 1)), work);
}

}  // namespace noxel::tracker
