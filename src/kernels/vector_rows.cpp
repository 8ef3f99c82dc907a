// The row kernels, sixteen samples at a time.
#include <algorithm>
#include <bit>
#include <cstring>

#include "kernels/byte_vectors.h"
#include "kernels/row_kernels.h"

namespace noxel::kernels {

#if NOXEL_BYTE_VECTORS

namespace {

void interleaveRow(const uint8_t* first, const uint8_t* second, int begin, int end, uint8_t* pairs) {
  int i = begin;
  for (; i + 16 <= end; i += 16) {
    const Bytes a = Bytes::load(first + i);
    const Bytes b = Bytes::load(second + i);
    zippedLow(a, b).store(pairs + 2 * i);
    zippedHigh(a, b).store(pairs + 2 * i + 16);
  }
  kPlainRows.interleave(first, second, i, end, pairs);
}

void deinterleaveRow(const uint8_t* pairs, int begin, int end, uint8_t* first, uint8_t* second) {
  int i = begin;
  for (; i + 16 <= end; i += 16) {
    const Bytes a = Bytes::load(pairs + 2 * i);
    const Bytes b = Bytes::load(pairs + 2 * i + 16);
    evensOf(a, b).store(first + i);
    oddsOf(a, b).store(second + i);
  }
  kPlainRows.deinterleave(pairs, i, end, first, second);
}

void halveRow(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out) {
  const auto eight = [&](int x) {
    return (Bytes::load(upper + 2 * x).pairSums() + Bytes::load(lower + 2 * x).pairSums() + Words::all(2)) >> 2;
  };
  int x = begin;
  for (; x + 16 <= end; x += 16) narrowed(eight(x), eight(x + 8)).store(out + x);
  kPlainRows.halve(upper, lower, x, end, out);
}

void halveRowDiagonal(const uint8_t* upper, const uint8_t* lower, int begin, int end, uint8_t* out) {
  const auto eight = [&](int x) {
    return (Bytes::load(upper + 2 * x).evens() + Bytes::load(lower + 2 * x).odds() + Words::all(1)) >> 1;
  };
  int x = begin;
  for (; x + 16 <= end; x += 16) narrowed(eight(x), eight(x + 8)).store(out + x);
  kPlainRows.halveDiagonal(upper, lower, x, end, out);
}

template <Separable kFilter>
void columnSums(const uint8_t* const* rows, int begin, int end, uint16_t* sums) {
  int x = begin;
  for (; x + 16 <= end; x += 16) {
    Words low[kTaps[kFilter]];
    Words high[kTaps[kFilter]];
    for (int k = 0; k < kTaps[kFilter]; ++k) {
      const Bytes row = Bytes::load(rows[k] + x);
      low[k] = row.lowHalf();
      high[k] = row.highHalf();
    }
    weighted<kFilter>(low).store(sums + x);
    weighted<kFilter>(high).store(sums + x + 8);
  }
  kPlainRows.columnSums[kFilter](rows, x, end, sums);
}

template <Separable kFilter>
void rowMeans(const uint16_t* sums, int begin, int end, uint8_t* out) {
  const auto eight = [&](int x) {
    Words taps[kTaps[kFilter]];
    for (int k = 0; k < kTaps[kFilter]; ++k) taps[k] = Words::load(sums + x + k);
    return (weighted<kFilter>(taps) + Words::all(1 << (kWeightBits[kFilter] - 1))) >> kWeightBits[kFilter];
  };
  int x = begin;
  for (; x + 16 <= end; x += 16) narrowed(eight(x), eight(x + 8)).store(out + x);
  kPlainRows.rowMeans[kFilter](sums, x, end, out);
}

void sharpenRow(const uint8_t* source, const uint8_t* blurred, int sixteenths, int begin, int end, uint8_t* out) {
  const auto sharpened = [&](const Words& pixels, const Words& means) {
    return pixels + ((pixels - means) * Words::all(sixteenths) + Words::all(8)).signedShift(4);
  };
  int x = begin;
  for (; x + 16 <= end; x += 16) {
    const Bytes pixels = Bytes::load(source + x);
    const Bytes means = Bytes::load(blurred + x);
    narrowed(sharpened(pixels.lowHalf(), means.lowHalf()), sharpened(pixels.highHalf(), means.highHalf()))
        .store(out + x);
  }
  kPlainRows.sharpen(source, blurred, sixteenths, x, end, out);
}

void limitRow(const uint8_t* original, int limit, int begin, int end, uint8_t* changed) {
  const Bytes reach = Bytes::all(limit);
  int x = begin;
  for (; x + 16 <= end; x += 16) {
    const Bytes middle = Bytes::load(original + x);
    max(min(Bytes::load(changed + x), middle.plus(reach)), middle.minus(reach)).store(changed + x);
  }
  kPlainRows.limitChange(original, limit, x, end, changed);
}

void mapRow(const uint8_t* source, const CodeMap& map, int begin, int end, uint8_t* out) {
  const Bytes low = Bytes::all(map.low), span = Bytes::all(map.span), start = Bytes::all(map.start);
  const Bytes kept = Bytes::all(map.keeps ? 255 : 0);
  const Words factor = Words::all(map.factor), bias = Words::all(map.bias);
  const auto scaled = [&](const Words& t) { return ((t << 8).upperProduct(factor) + bias) >> 8; };
  int x = begin;
  for (; x + 16 <= end; x += 16) {
    const Bytes t = min(Bytes::load(source + x).minus(low), span);
    const Bytes added = narrowed(scaled(t.lowHalf()), scaled(t.highHalf()));
    added.plus(start).plus(min(t, kept)).store(out + x);
  }
  kPlainRows.mapCodes(source, map, x, end, out);
}

void swapRow(const uint8_t* source, int begin, int end, uint8_t* out) {
  int i = begin;
  for (; i + 8 <= end; i += 8) {
    const Words pairs = Words::load(source + 2 * i);
    ((pairs << 8) + (pairs >> 8)).store(out + 2 * i);
  }
  kPlainRows.swapPairs(source, i, end, out);
}

// Running means on sixteen lines at once: the lines are copied side by side into a tile, sample i of all of them at
// tile + 16 i.
constexpr int kLanes = 16;
constexpr int kTileRows = kLanes / 2;  // rows of pairs
constexpr int kMaxVectorRadius = 63;   // see Divider

// Exactly n / divisor, for an odd divisor in 3..127 and n < 256 * divisor, as (n * factor) >> (16 + bits) with bits =
// floor(log2(divisor)). The factor, 2^(16 + bits) / divisor rounded up, fits 16 bits and is too large by less than 1,
// which adds less than 256 * divisor / 2^(16 + bits) < 2^-7 to the quotient. The next integer is at least 1 / divisor
// away.
struct Divider {
  explicit Divider(int divisor)
      : bits(std::bit_width(static_cast<unsigned>(divisor)) - 1),
        factor(Words::all(((1 << (16 + bits)) + divisor - 1) / divisor)) {}
  Words operator()(const Words& n) const { return n.upperProduct(factor) >> bits; }

  int bits;
  Words factor;
};

void smoothTile(uint8_t* tile, int count, int radius, int iterations) {
  const Divider divide(2 * radius + 1);
  const Words half = Words::all(radius);
  const auto at = [&](int i) { return tile + static_cast<ptrdiff_t>(kLanes) * i; };
  for (int iteration = 0; iteration < iterations; ++iteration) {
    const Bytes edge = Bytes::load(at(0));
    Words low = edge.lowHalf() * Words::all(radius + 1);
    Words high = edge.highHalf() * Words::all(radius + 1);
    for (int i = 1; i <= radius; ++i) {
      const Bytes sample = Bytes::load(at(std::min(i, count - 1)));
      low = low + sample.lowHalf();
      high = high + sample.highHalf();
    }
    // Samples already overwritten that the sums still contain.
    constexpr int kPast = kMaxVectorRadius + 1;  // a power of two
    uint8_t past[kPast * kLanes];
    for (int i = 0; i < count; ++i) {
      Bytes::load(at(i)).store(past + (i & (kPast - 1)) * kLanes);
      narrowed(divide(low + half), divide(high + half)).store(at(i));
      const Bytes coming = Bytes::load(at(std::min(i + radius + 1, count - 1)));
      const Bytes going = Bytes::load(past + (std::max(i - radius, 0) & (kPast - 1)) * kLanes);
      low = low + coming.lowHalf() - going.lowHalf();
      high = high + coming.highHalf() - going.highHalf();
    }
  }
}

// The same shuffle of halves, three times, transposes 8 x 8.
void transpose(Words (&rows)[8]) {
  for (int round = 0; round < 3; ++round) {
    Words shuffled[8];
    for (int i = 0; i < 4; ++i) {
      shuffled[2 * i] = zippedLow(rows[i], rows[i + 4]);
      shuffled[2 * i + 1] = zippedHigh(rows[i], rows[i + 4]);
    }
    std::copy(shuffled, shuffled + 8, rows);
  }
}

// Copies `rowCount` rows of pairs, from y on, to a tile and back. With fewer than eight rows the other lanes repeat the
// last.
void rowsToTile(const Plane& pairs, int y, int rowCount, uint8_t* tile) {
  const uint8_t* rows[kTileRows];
  for (int k = 0; k < kTileRows; ++k) rows[k] = pairs.row(y + std::min(k, rowCount - 1));
  const int width = pairs.width / 2;
  int x = 0;
  for (; x + 8 <= width; x += 8) {
    Words block[8];
    for (int k = 0; k < 8; ++k) block[k] = Words::load(rows[k] + 2 * x);
    transpose(block);
    for (int k = 0; k < 8; ++k) block[k].store(tile + static_cast<ptrdiff_t>(kLanes) * (x + k));
  }
  for (; x < width; ++x) {
    for (int k = 0; k < kTileRows; ++k)
      std::memcpy(tile + static_cast<ptrdiff_t>(kLanes) * x + 2 * k, rows[k] + 2 * x, 2);
  }
}

void tileToRows(const uint8_t* tile, const Plane& pairs, int y, int rowCount) {
  const int width = pairs.width / 2;
  int x = 0;
  for (; x + 8 <= width; x += 8) {
    Words block[8];
    for (int k = 0; k < 8; ++k) block[k] = Words::load(tile + static_cast<ptrdiff_t>(kLanes) * (x + k));
    transpose(block);
    for (int k = 0; k < rowCount; ++k) block[k].store(pairs.row(y + k) + 2 * x);
  }
  for (; x < width; ++x) {
    for (int k = 0; k < rowCount; ++k)
      std::memcpy(pairs.row(y + k) + 2 * x, tile + static_cast<ptrdiff_t>(kLanes) * x + 2 * k, 2);
  }
}

// The scratch, one byte per pair, holds a tile from sixteen rows or columns on.
bool fitsTile(int lines, int radius) {
  return lines >= kLanes && radius >= 1 && radius <= kMaxVectorRadius;
}

void smoothRows(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch) {
  if (!fitsTile(end - begin, radius)) {
    kPlainRows.smoothRows(pairs, begin, end, radius, iterations, scratch);
    return;
  }
  for (int y = begin; y < end; y += kTileRows) {
    const int rowCount = std::min(kTileRows, end - y);
    rowsToTile(pairs, y, rowCount, scratch);
    smoothTile(scratch, pairs.width / 2, radius, iterations);
    tileToRows(scratch, pairs, y, rowCount);
  }
}

void smoothColumns(const Plane& pairs, int begin, int end, int radius, int iterations, uint8_t* scratch) {
  if (!fitsTile(end - begin, radius)) {
    kPlainRows.smoothColumns(pairs, begin, end, radius, iterations, scratch);
    return;
  }
  for (int x = 2 * begin; x < 2 * end; x += kLanes) {
    const auto bytes = static_cast<size_t>(std::min(kLanes, 2 * end - x));
    const auto sample = [&](int y) { return scratch + static_cast<ptrdiff_t>(kLanes) * y; };
    if (bytes < kLanes) std::memset(scratch, 0, static_cast<size_t>(kLanes) * static_cast<size_t>(pairs.height));
    for (int y = 0; y < pairs.height; ++y) std::memcpy(sample(y), pairs.row(y) + x, bytes);
    smoothTile(scratch, pairs.height, radius, iterations);
    for (int y = 0; y < pairs.height; ++y) std::memcpy(pairs.row(y) + x, sample(y), bytes);
  }
}

constexpr RowKernels kRows = {
    interleaveRow,
    deinterleaveRow,
    halveRow,
    halveRowDiagonal,
    {columnSums<kBoxFour>, columnSums<kGaussThree>, columnSums<kGaussFive>},
    {rowMeans<kBoxFour>, rowMeans<kGaussThree>, rowMeans<kGaussFive>},
    sharpenRow,
    limitRow,
    mapRow,
    swapRow,
    smoothRows,
    smoothColumns,
};

}  // namespace

const RowKernels* const kVectorRows = &kRows;

#else

const RowKernels* const kVectorRows = nullptr;

#endif

}  // namespace noxel::kernels
