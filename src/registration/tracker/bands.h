// Work that is split into bands of rows: what a row gets does not depend on who does it.
#pragma once

#include <algorithm>
#include <cstdint>

#include "kernels/row_jobs.h"

namespace noxel::tracker {

// Calls work(firstRow, endRow) for bands that cover `rows`. `rowCost`: items in a row; little work is not worth waking
// anybody for.
template <class Work>
void forBands(WorkerPool* pool, int rows, int64_t rowCost, const Work& work) {
  constexpr int64_t kBandCost = 16384;
  const int64_t rowsPerBand = kBandCost / std::max<int64_t>(rowCost, 1);
  forEachRowBlock(pool, rows, static_cast<int>(std::max<int64_t>(rowsPerBand, 1)), work);
}

}  // namespace noxel::tracker
