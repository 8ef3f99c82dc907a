// Work that is split into bands of rows: what a row gets does not depend on who does it.
#pragma once

#include <algorithm>

#include "kernels/row_jobs.h"

namespace noxel::tracker {

// Calls work(firstRow, endRow) for bands that cover `rows`. `rowCost`: items in a row; little work is not worth waking
// anybody for.
template <class Work>
void forBands(WorkerPool* pool, int rows, int rowCost, const Work& work) {
  constexpr int kBandCost = 16384;
  forEachRowBlock(pool, rows, std::max(1, kBandCost / std::max(rowCost, 1)), work);
}

}  // namespace noxel::tracker
