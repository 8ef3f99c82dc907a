#include "api/frame_planes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kernels/planes.h"

namespace noxel {
namespace {

// round((code - inZero) * outSpan / inSpan) + outZero, clamped. Taken there and back, a limited code is itself again.
constexpr bool rounds(const kernels::CodeMap& map, int inZero, int inSpan, int outZero, int outSpan) {
  for (int code = 0; code < 256; ++code) {
    const int product = 2 * (code - inZero) * outSpan;
    const int rounded = (product >= 0 ? product + inSpan : product - inSpan) / (2 * inSpan);
    if (map(static_cast<uint8_t>(code)) != std::clamp(rounded + outZero, 0, 255)) return false;
  }
  return true;
}

// Factors: 36 / 219, 219 / 255, 31 / 224 and 224 / 255, times 65536.
constexpr kernels::CodeMap kLumaToFull = {16, 219, 0, true, 10773, 128};
constexpr kernels::CodeMap kLumaToLimited = {0, 255, 16, false, 56283, 128};
constexpr kernels::CodeMap kChromaToFull = {16, 224, 0, true, 9070, 255};
constexpr kernels::CodeMap kChromaToLimited = {0, 255, 15, false, 57569, 272};
static_assert(rounds(kLumaToFull, 16, 219, 0, 255) && rounds(kLumaToLimited, 0, 255, 16, 219));
static_assert(rounds(kChromaToFull, 128, 224, 128, 255) && rounds(kChromaToLimited, 128, 255, 128, 224));

// In place where `to` is `from`; full range: as they are.
void mapRow(const unsigned char* from, int bytes, bool full, const kernels::CodeMap& map, unsigned char* to) {
  if (!full) {
    kernels::mapCodes({from, bytes, 1, bytes}, map, {to, bytes, 1, bytes});
  } else if (from != to) {
    std::memcpy(to, from, static_cast<size_t>(bytes));
  }
}

// Repeats the last `step` bytes of `count` up to `paddedCount`.
void padRow(unsigned char* row, int count, int step, int paddedCount) {
  for (int x = count; x < paddedCount; ++x) row[x] = row[x - step];
}

// All of `to` is written; past the last sample of a row, and past the last row, the last ones are repeated.
void takeLuma(const noxel_frame& frame, int width, int height, unsigned char* to) {
  const int paddedWidth = engineWidth(width);
  for (int y = 0; y < engineHeight(height); ++y, to += paddedWidth) {
    const unsigned char* row = frame.planes[0] + std::min(y, height - 1) * frame.strides[0];
    mapRow(row, width, frame.range == NOXEL_RANGE_FULL, kLumaToFull, to);
    padRow(to, width, 1, paddedWidth);
  }
}

bool inPairs(const noxel_frame& frame) {
  return frame.format == NOXEL_PLANES_NV12 || frame.format == NOXEL_PLANES_NV21;
}

// A row of V,U pairs from the frame's layout and back.
void takePairs(const noxel_frame& frame, int y, int columns, unsigned char* to) {
  const unsigned char* const second = frame.planes[1] + y * frame.strides[1];
  if (inPairs(frame)) {
    const kernels::ConstPlane row = kernels::packed(second, 2 * columns, 1);
    if (frame.format == NOXEL_PLANES_NV12) return kernels::swapPairs(row, kernels::packed(to, 2 * columns, 1));
    std::memcpy(to, second, static_cast<size_t>(2 * columns));
    return;
  }
  const unsigned char* const third = frame.planes[2] + y * frame.strides[2];
  const bool blueFirst = frame.format == NOXEL_PLANES_I420;
  kernels::interleave(kernels::packed(blueFirst ? third : second, columns, 1),
                      kernels::packed(blueFirst ? second : third, columns, 1), kernels::packed(to, 2 * columns, 1));
}

void takeChroma(const noxel_frame& frame, int width, int height, unsigned char* to) {
  const int columns = (width + 1) / 2, rows = (height + 1) / 2, stride = engineWidth(width);
  for (int y = 0; y < engineHeight(height) / 2; ++y, to += stride) {
    takePairs(frame, std::min(y, rows - 1), columns, to);
    mapRow(to, 2 * columns, frame.range == NOXEL_RANGE_FULL, kChromaToFull, to);
    padRow(to, 2 * columns, 2, stride);
  }
}

bool isPackedRgb(const noxel_frame& frame) {
  return frame.format == NOXEL_PLANES_RGB || frame.format == NOXEL_PLANES_BGR;
}

kernels::RgbOrder orderOf(const noxel_frame& frame) {
  return frame.format == NOXEL_PLANES_RGB ? kernels::RgbOrder::kRgb : kernels::RgbOrder::kBgr;
}

void takeRgb(const noxel_frame& frame, int width, int height, unsigned char* nv21) {
  const int paddedWidth = engineWidth(width), paddedHeight = engineHeight(height), columns = (width + 1) / 2;
  const kernels::Plane luma = {nv21, width, height, paddedWidth};
  const kernels::Plane pairs = {luma.row(paddedHeight), 2 * columns, (height + 1) / 2, paddedWidth};
  kernels::planesFromRgb({frame.planes[0], 3 * width, height, frame.strides[0]}, orderOf(frame), luma, pairs);
  for (int y = 0; y < height; ++y) padRow(luma.row(y), width, 1, paddedWidth);
  for (int y = 0; y < pairs.height; ++y) padRow(pairs.row(y), 2 * columns, 2, paddedWidth);
  if (paddedHeight > height) std::memcpy(luma.row(height), luma.row(height - 1), static_cast<size_t>(paddedWidth));
}

void giveRgb(const unsigned char* nv21, int width, int height, const noxel_frame& frame) {
  const kernels::ConstPlane luma = {nv21, width, height, engineWidth(width)};
  const kernels::ConstPlane pairs = {luma.row(engineHeight(height)), (width + 1) / 2 * 2, (height + 1) / 2,
                                     luma.stride};
  kernels::rgbFromPlanes(luma, pairs, orderOf(frame), {frame.planes[0], 3 * width, height, frame.strides[0]});
}

void giveChroma(const unsigned char* from, int y, int columns, const noxel_frame& frame) {
  const bool full = frame.range == NOXEL_RANGE_FULL;
  unsigned char* const second = frame.planes[1] + y * frame.strides[1];
  if (inPairs(frame)) {
    mapRow(from, 2 * columns, full, kChromaToLimited, second);
    const kernels::Plane row = kernels::packed(second, 2 * columns, 1);
    if (frame.format == NOXEL_PLANES_NV12) kernels::swapPairs(row, row);
    return;
  }
  unsigned char* const third = frame.planes[2] + y * frame.strides[2];
  const bool blueFirst = frame.format == NOXEL_PLANES_I420;
  kernels::deinterleave(kernels::packed(from, 2 * columns, 1), kernels::packed(blueFirst ? third : second, columns, 1),
                        kernels::packed(blueFirst ? second : third, columns, 1));
  for (unsigned char* plane : {second, third}) mapRow(plane, columns, full, kChromaToLimited, plane);
}

// Shares of red and blue in luma; green has the rest.
struct Primaries {
  double red, blue;
};

constexpr Primaries primariesOf(int matrix) {
  return matrix == NOXEL_MATRIX_BT709 ? Primaries{0.2126, 0.0722} : Primaries{0.299, 0.114};
}

// Y' = Y + yu U + yv V, U' = uu U + uv V, V' = vu U + vv V, from the definitions Y = Kr R + Kg G + Kb B,
// U = (B - Y) / (2 (1 - Kb)), V = (R - Y) / (2 (1 - Kr)).
struct MatrixChange {
  double yu, yv, uu, uv, vu, vv;
};

constexpr MatrixChange changeBetween(const Primaries& from, const Primaries& to) {
  const double fromGreen = 1 - from.red - from.blue, toGreen = 1 - to.red - to.blue;
  const double blueOfU = 2 * (1 - from.blue), redOfV = 2 * (1 - from.red);
  MatrixChange change{};
  change.yu = blueOfU * (to.blue - toGreen * from.blue / fromGreen);
  change.yv = redOfV * (to.red - toGreen * from.red / fromGreen);
  change.uu = (blueOfU - change.yu) / (2 * (1 - to.blue));
  change.uv = -change.yv / (2 * (1 - to.blue));
  change.vu = -change.yu / (2 * (1 - to.red));
  change.vv = (redOfV - change.yv) / (2 * (1 - to.red));
  return change;
}

constexpr int kFractionBits = 14;

constexpr int fixed(double value) {
  const double scaled = value * (1 << kFractionBits);
  return static_cast<int>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
}

unsigned char rounded(int value) {
  return static_cast<unsigned char>(std::clamp((value + (1 << (kFractionBits - 1))) >> kFractionBits, 0, 255));
}

}  // namespace

int matrixOf(const noxel_frame& frame) {
  return isPackedRgb(frame) ? NOXEL_MATRIX_BT601 : frame.matrix;
}

bool isUsable(const noxel_frame& frame, int width, int height, int mode) {
  if ((mode == NOXEL_MODE_PICTURE) != (frame.format == NOXEL_PLANES_RGBA)) return false;
  if (frame.format == NOXEL_PLANES_RGBA || isPackedRgb(frame)) {
    const ptrdiff_t row = ptrdiff_t{frame.format == NOXEL_PLANES_RGBA ? 4 : 3} * width;
    return frame.planes[0] != nullptr && (height == 1 || std::abs(frame.strides[0]) >= row);
  }
  if (frame.format < NOXEL_PLANES_NV12 || frame.format > NOXEL_PLANES_YV12) return false;
  if (frame.range != NOXEL_RANGE_LIMITED && frame.range != NOXEL_RANGE_FULL) return false;
  if (frame.matrix != NOXEL_MATRIX_BT601 && frame.matrix != NOXEL_MATRIX_BT709) return false;
  const bool pairs = frame.format <= NOXEL_PLANES_NV21;
  const ptrdiff_t columns = (width + 1) / 2;
  const ptrdiff_t least[] = {width, pairs ? 2 * columns : columns, columns};
  for (int plane = 0; plane < (pairs ? 2 : 3); ++plane) {
    const int rows = plane == 0 ? height : (height + 1) / 2;
    if (frame.planes[plane] == nullptr || (rows > 1 && std::abs(frame.strides[plane]) < least[plane])) return false;
  }
  return true;
}

void takePlanes(const noxel_frame& frame, int width, int height, unsigned char* nv21) {
  if (isPackedRgb(frame)) return takeRgb(frame, width, height, nv21);
  takeLuma(frame, width, height, nv21);
  takeChroma(frame, width, height, nv21 + static_cast<ptrdiff_t>(engineWidth(width)) * engineHeight(height));
}

void givePlanes(const unsigned char* nv21, int width, int height, const noxel_frame& frame) {
  if (isPackedRgb(frame)) return giveRgb(nv21, width, height, frame);
  const int stride = engineWidth(width);
  for (int y = 0; y < height; ++y, nv21 += stride)
    mapRow(nv21, width, frame.range == NOXEL_RANGE_FULL, kLumaToLimited, frame.planes[0] + y * frame.strides[0]);
  nv21 += ptrdiff_t{stride} * (engineHeight(height) - height);
  for (int y = 0; y < (height + 1) / 2; ++y, nv21 += stride) giveChroma(nv21, y, (width + 1) / 2, frame);
}

void takeRgba(const noxel_frame& frame, int width, int height, unsigned char* rgba) {
  const size_t bytes = 4 * static_cast<size_t>(width);
  for (int y = 0; y < height; ++y, rgba += bytes) std::memcpy(rgba, frame.planes[0] + y * frame.strides[0], bytes);
}

void giveRgba(const unsigned char* rgba, int width, int height, const noxel_frame& frame) {
  const size_t bytes = 4 * static_cast<size_t>(width);
  for (int y = 0; y < height; ++y, rgba += bytes) std::memcpy(frame.planes[0] + y * frame.strides[0], rgba, bytes);
}

void copyAlpha(const unsigned char* from, int width, int height, unsigned char* rgba) {
  const size_t bytes = 4 * static_cast<size_t>(width) * static_cast<size_t>(height);
  for (size_t i = 3; i < bytes; i += 4) rgba[i] = from[i];
}

void convertMatrix(int from, int to, int width, int height, unsigned char* nv21) {
  if (from == to) return;
  const MatrixChange change = changeBetween(primariesOf(from), primariesOf(to));
  const int yu = fixed(change.yu), yv = fixed(change.yv);
  const int uu = fixed(change.uu), uv = fixed(change.uv), vu = fixed(change.vu), vv = fixed(change.vv);
  unsigned char* pair = nv21 + static_cast<ptrdiff_t>(width) * height;
  for (int y = 0; y < height; y += 2) {
    for (int x = 0; x < width; x += 2, pair += 2) {
      const int v = pair[0] - 128, u = pair[1] - 128;
      const int added = yu * u + yv * v;
      for (unsigned char* luma :
           {nv21 + static_cast<ptrdiff_t>(y) * width + x, nv21 + static_cast<ptrdiff_t>(y + 1) * width + x}) {
        luma[0] = rounded((luma[0] << kFractionBits) + added);
        luma[1] = rounded((luma[1] << kFractionBits) + added);
      }
      pair[0] = rounded((128 << kFractionBits) + vu * u + vv * v);
      pair[1] = rounded((128 << kFractionBits) + uu * u + uv * v);
    }
  }
}

}  // namespace noxel
