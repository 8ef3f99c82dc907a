#include "kernels/planes.h"

#include <algorithm>
#include <cassert>

#include "kernels/row_jobs.h"
#include "kernels/row_kernels.h"

namespace noxel::kernels {
namespace {

// Smaller blocks are not worth waking a helper.
constexpr int kBlockBytes = 32768;

int blockRows(int width) {
  return std::max(1, kBlockBytes / std::max(width, 1));
}

[[maybe_unused]] bool sameSize(const ConstPlane& a, const ConstPlane& b) {
  return a.width == b.width && a.height == b.height;
}

// A separable filter over offsets first..first + taps - 1, for rows [begin, end). finish(y, x, count, means) receives
// `count` results of row y from x on.
template <class Finish>
void filterRows(const ConstPlane& source, Separable filter, int first, int begin, int end, const Finish& finish) {
  constexpr int kStrip = 512;  // columns at a time: the sums stay in the L1 cache, on the stack
  const RowKernels& kernels = rowKernels();
  const int taps = kTaps[filter];
  uint16_t sums[kStrip + kMaxTaps - 1];
  uint8_t means[kStrip];
  for (int y = begin; y < end; ++y) {
    for (int x = 0; x < source.width; x += kStrip) {
      const int count = std::min(kStrip, source.width - x);
      const int reach = count + taps - 1;  // sums[i] is that of column x + first + i
      const int left = std::max(-(x + first), 0);
      const int right = std::min(reach, source.width - (x + first));
      const uint8_t* rows[kMaxTaps];
      for (int k = 0; k < taps; ++k) {
        rows[k] = source.row(std::clamp(y + first + k, 0, source.height - 1)) + (x + first + left);
      }
      kernels.columnSums[filter](rows, 0, right - left, sums + left);
      std::fill(sums, sums + left, sums[left]);
      std::fill(sums + right, sums + reach, sums[right - 1]);
      kernels.rowMeans[filter](sums, 0, count, means);
      finish(y, x, count, means);
    }
  }
}

void filterPlane(const ConstPlane& source, Separable filter, int first, const Plane& destination, WorkerPool* pool) {
  assert(sameSize(source, destination));
  forEachRowBlock(pool, source.height, blockRows(source.width), [&](int begin, int end) {
    filterRows(source, filter, first, begin, end, [&](int y, int x, int count, const uint8_t* means) {
      std::copy(means, means + count, destination.row(y) + x);
    });
  });
}

Separable separable(Gauss taps) {
  return taps == Gauss::kThree ? kGaussThree : kGaussFive;
}

using HalveRow = void (*)(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out);

void halvePlane(const ConstPlane& source, const Plane& destination, HalveRow halve) {
  assert(destination.width == source.width / 2 && destination.height == source.height / 2);
  for (int y = 0; y < destination.height; ++y) {
    halve(source.row(2 * y), source.row(2 * y + 1), 0, destination.width, destination.row(y));
  }
}

// Calls work(begin, end) for blocks of `lines` rows or columns, each `length` pairs long. Blocks start at a tile of
// running means and hold at least two tiles when there are as many lines: see smoothRows.
template <class Work>
void forTiles(WorkerPool* pool, int lines, int length, const Work& work) {
  constexpr int kTileLines = 8;
  constexpr int kPasses = 8;  // over each pair, roughly: copies and iterations
  const int tiles = std::max(lines / kTileLines, 1);
  const int perBlock = std::max(blockRows(length * kPasses) / kTileLines, 2);
  forEachRowBlock(pool, tiles, perBlock,
                  [&](int begin, int end) { work(begin * kTileLines, end == tiles ? lines : end * kTileLines); });
}

}  // namespace

void interleave(const ConstPlane& first, const ConstPlane& second, const Plane& pairs) {
  assert(sameSize(first, second) && pairs.width == 2 * first.width && pairs.height == first.height);
  const RowKernels& kernels = rowKernels();
  for (int y = 0; y < first.height; ++y) {
    kernels.interleave(first.row(y), second.row(y), 0, first.width, pairs.row(y));
  }
}

void deinterleave(const ConstPlane& pairs, const Plane& first, const Plane& second) {
  assert(sameSize(first, second) && pairs.width == 2 * first.width && pairs.height == first.height);
  const RowKernels& kernels = rowKernels();
  for (int y = 0; y < first.height; ++y) {
    kernels.deinterleave(pairs.row(y), 0, first.width, first.row(y), second.row(y));
  }
}

void downscaleByTwo(const ConstPlane& source, const Plane& destination) {
  halvePlane(source, destination, rowKernels().halve);
}

void downscaleByTwoDiagonal(const ConstPlane& source, const Plane& destination) {
  halvePlane(source, destination, rowKernels().halveDiagonal);
}

void boxFour(const ConstPlane& source, int first, const Plane& destination, WorkerPool* pool) {
  assert(first >= -3 && first <= 0);
  filterPlane(source, kBoxFour, first, destination, pool);
}

void smoothTwice(const Plane& image, uint8_t* scratch, WorkerPool* pool) {
  const Plane between = packed(scratch, image.width, image.height);
  boxFour(image, -2, between, pool);
  boxFour(between, -1, image, pool);
}

void gauss(const ConstPlane& source, Gauss taps, const Plane& destination, WorkerPool* pool) {
  filterPlane(source, separable(taps), taps == Gauss::kThree ? -1 : -2, destination, pool);
}

void sharpen(const ConstPlane& source, Gauss taps, int sixteenths, const Plane& destination, WorkerPool* pool) {
  assert(sameSize(source, destination) && sixteenths >= 0 && sixteenths <= kMaxSharpening);
  forEachRowBlock(pool, source.height, blockRows(source.width), [&](int begin, int end) {
    const RowKernels& kernels = rowKernels();
    const auto finish = [&](int y, int x, int count, const uint8_t* means) {
      kernels.sharpen(source.row(y) + x, means, sixteenths, 0, count, destination.row(y) + x);
    };
    filterRows(source, separable(taps), taps == Gauss::kThree ? -1 : -2, begin, end, finish);
  });
}

void limitChange(const ConstPlane& original, int limit, const Plane& changed) {
  assert(original.width == changed.width && original.height == changed.height && limit >= 0 && limit <= 255);
  const RowKernels& kernels = rowKernels();
  for (int y = 0; y < changed.height; ++y)
    kernels.limitChange(original.row(y), limit, 0, changed.width, changed.row(y));
}

void mapCodes(const ConstPlane& source, const CodeMap& map, const Plane& destination) {
  assert(sameSize(source, destination));
  const RowKernels& kernels = rowKernels();
  for (int y = 0; y < source.height; ++y) kernels.mapCodes(source.row(y), map, 0, source.width, destination.row(y));
}

void swapPairs(const ConstPlane& source, const Plane& destination) {
  assert(sameSize(source, destination) && source.width % 2 == 0);
  const RowKernels& kernels = rowKernels();
  for (int y = 0; y < source.height; ++y) kernels.swapPairs(source.row(y), 0, source.width / 2, destination.row(y));
}

void smoothChroma(const Plane& pairs, int radius, int iterations, uint8_t* scratch, WorkerPool* pool) {
  assert(pairs.width % 2 == 0 && radius >= 0);
  const RowKernels& kernels = rowKernels();
  const int width = pairs.width / 2;
  const int height = pairs.height;
  if (width == 0 || height == 0) return;
  // A block uses the scratch of its own pairs.
  forTiles(pool, height, width, [&](int begin, int end) {
    kernels.smoothRows(pairs, begin, end, radius, iterations, scratch + static_cast<ptrdiff_t>(begin) * width);
  });
  forTiles(pool, width, height, [&](int begin, int end) {
    kernels.smoothColumns(pairs, begin, end, radius, iterations, scratch + static_cast<ptrdiff_t>(begin) * height);
  });
}

}  // namespace noxel::kernels
