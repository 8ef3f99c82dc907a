#include "api/frame_planes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace noxel {
namespace {

using Codes = std::array<unsigned char, 256>;

// out = round((in - inZero) * outSpan / inSpan) + outZero, clamped. Taken there and back, a limited code is itself again.
constexpr Codes scaledCodes(int inZero, int inSpan, int outZero, int outSpan) {
  Codes codes{};
  for (int in = 0; in < 256; ++in) {
    const int product = 2 * (in - inZero) * outSpan;
    const int rounded = (product >= 0 ? product + inSpan : product - inSpan) / (2 * inSpan);
    codes[static_cast<size_t>(in)] = static_cast<unsigned char>(std::clamp(rounded + outZero, 0, 255));
  }
  return codes;
}

constexpr Codes kLumaToFull = scaledCodes(16, 219, 0, 255);
constexpr Codes kLumaToLimited = scaledCodes(0, 255, 16, 219);
constexpr Codes kChromaToFull = scaledCodes(128, 224, 128, 255);
constexpr Codes kChromaToLimited = scaledCodes(128, 255, 128, 224);

struct ChromaPlanes {
  unsigned char* u;
  unsigned char* v;
  ptrdiff_t uStride;
  ptrdiff_t vStride;
  int step;  // bytes from a sample to the next
};

ChromaPlanes chromaOf(const noxel_frame& frame) {
  unsigned char* const* planes = frame.planes;
  const ptrdiff_t* strides = frame.strides;
  switch (frame.format) {
    case NOXEL_PLANES_NV12:
      return {planes[1], planes[1] + 1, strides[1], strides[1], 2};
    case NOXEL_PLANES_NV21:
      return {planes[1] + 1, planes[1], strides[1], strides[1], 2};
    case NOXEL_PLANES_I420:
      return {planes[1], planes[2], strides[1], strides[2], 1};
    default:
      return {planes[2], planes[1], strides[2], strides[1], 1};
  }
}

// All of `to` is written; past the last sample of a row, and past the last row, the last ones are repeated.
void takeLuma(const noxel_frame& frame, int width, int height, unsigned char* to) {
  const int paddedWidth = engineWidth(width);
  for (int y = 0; y < engineHeight(height); ++y, to += paddedWidth) {
    const unsigned char* row = frame.planes[0] + std::min(y, height - 1) * frame.strides[0];
    if (frame.range == NOXEL_RANGE_FULL) {
      std::memcpy(to, row, static_cast<size_t>(width));
    } else {
      for (int x = 0; x < width; ++x) to[x] = kLumaToFull[row[x]];
    }
    std::memset(to + width, to[width - 1], static_cast<size_t>(paddedWidth - width));
  }
}

void takeChroma(const noxel_frame& frame, int width, int height, unsigned char* to) {
  const ChromaPlanes chroma = chromaOf(frame);
  const bool full = frame.range == NOXEL_RANGE_FULL;
  const int columns = (width + 1) / 2, rows = (height + 1) / 2;
  for (int y = 0; y < engineHeight(height) / 2; ++y) {
    const unsigned char* u = chroma.u + std::min(y, rows - 1) * chroma.uStride;
    const unsigned char* v = chroma.v + std::min(y, rows - 1) * chroma.vStride;
    for (int x = 0; x < engineWidth(width) / 2; ++x, to += 2) {
      const ptrdiff_t at = static_cast<ptrdiff_t>(std::min(x, columns - 1)) * chroma.step;
      to[0] = full ? v[at] : kChromaToFull[v[at]];
      to[1] = full ? u[at] : kChromaToFull[u[at]];
    }
  }
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

bool isUsable(const noxel_frame& frame, int width, int height, int mode) {
  if ((mode == NOXEL_MODE_PICTURE) != (frame.format == NOXEL_PLANES_RGBA)) return false;
  if (frame.format == NOXEL_PLANES_RGBA)
    return frame.planes[0] != nullptr && (height == 1 || std::abs(frame.strides[0]) >= ptrdiff_t{4} * width);
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
  takeLuma(frame, width, height, nv21);
  takeChroma(frame, width, height, nv21 + static_cast<ptrdiff_t>(engineWidth(width)) * engineHeight(height));
}

void givePlanes(const unsigned char* nv21, int width, int height, const noxel_frame& frame) {
  const int stride = engineWidth(width);
  const bool full = frame.range == NOXEL_RANGE_FULL;
  for (int y = 0; y < height; ++y) {
    const unsigned char* from = nv21 + static_cast<ptrdiff_t>(y) * stride;
    unsigned char* row = frame.planes[0] + y * frame.strides[0];
    if (full) {
      std::memcpy(row, from, static_cast<size_t>(width));
    } else {
      for (int x = 0; x < width; ++x) row[x] = kLumaToLimited[from[x]];
    }
  }
  const ChromaPlanes chroma = chromaOf(frame);
  const unsigned char* from = nv21 + static_cast<ptrdiff_t>(stride) * engineHeight(height);
  for (int y = 0; y < (height + 1) / 2; ++y, from += stride) {
    unsigned char* u = chroma.u + y * chroma.uStride;
    unsigned char* v = chroma.v + y * chroma.vStride;
    for (int x = 0; x < (width + 1) / 2; ++x) {
      const ptrdiff_t at = static_cast<ptrdiff_t>(x) * chroma.step;
      v[at] = full ? from[2 * x] : kChromaToLimited[from[2 * x]];
      u[at] = full ? from[2 * x + 1] : kChromaToLimited[from[2 * x + 1]];
    }
  }
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
