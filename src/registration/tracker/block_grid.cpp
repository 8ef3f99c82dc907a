#include "registration/tracker/block_grid.h"

#include <cmath>
#include <cstddef>

#include "registration/tracker/lanes.h"

namespace noxel::tracker {
namespace {

constexpr float kLevel = 1.0f / kLevelsPerUnit;  // one 8-bit level
constexpr float kSlope = 0.5f / kLevelsPerUnit;  // a difference over two samples, as a gradient
constexpr float kSquare = kLevel * kLevel;
constexpr float kSlopeLevel = kSlope * kLevel;
constexpr float kSlopeSquare = kSlope * kSlope;

template <class Lanes>
Lanes ones() {
  static constexpr int16_t kOnes[kBlockSide] = {1, 1, 1, 1, 1, 1, 1, 1};
  return Lanes::load(kOnes);
}

}  // namespace

BlockGrid::BlockGrid(int width, int height)
    : columns(width > 2 ? (width - 2) / kBlockSide : 0), rows(height > 2 ? (height - 2) / kBlockSide : 0) {
  originX = (width - columns * kBlockSide) / 2;
  originY = (height - rows * kBlockSide) / 2;
}

void readTextures(const Image& image, const BlockGrid& grid, BlockTexture* textures, int firstRow, int endRow) {
  using Lanes = NativeLanes;
  const Lanes one = ones<Lanes>();
  const ptrdiff_t stride = image.width;
  for (int row = firstRow; row < endRow; ++row) {
    for (int column = 0; column < grid.columns; ++column) {
      const int16_t* at =
          image.pixels + (grid.originY + row * kBlockSide) * stride + grid.originX + column * kBlockSide;
      Lanes::Sum gxx, gxy, gyy, gx, gy, gxI, gyI, sum, squares;
      for (int y = 0; y < kBlockSide; ++y, at += stride) {
        const Lanes sample = Lanes::load(at);
        const Lanes slopeX = Lanes::load(at + 1).minus(Lanes::load(at - 1));
        const Lanes slopeY = Lanes::load(at + stride).minus(Lanes::load(at - stride));
        gxx.addProducts(slopeX, slopeX);
        gxy.addProducts(slopeX, slopeY);
        gyy.addProducts(slopeY, slopeY);
        gx.addProducts(slopeX, one);
        gy.addProducts(slopeY, one);
        gxI.addProducts(slopeX, sample);
        gyI.addProducts(slopeY, sample);
        sum.addProducts(sample, one);
        squares.addProducts(sample, sample);
      }
      const auto total = [](const Lanes::Sum& s, float scale) { return static_cast<float>(s.total()) * scale; };
      textures[row * grid.columns + column] = {
          total(gxx, kSlopeSquare), total(gxy, kSlopeSquare), total(gyy, kSlopeSquare),
          total(gx, kSlope),        total(gy, kSlope),        total(gxI, kSlopeLevel),
          total(gyI, kSlopeLevel),  total(sum, kLevel),       total(squares, kSquare)};
    }
  }
}

template <class Lanes>
BlockMatch matchBlock(const Image& image, const Image& other, int x, int y, float dx, float dy) {
  BlockMatch match = {};
  // Rejects NaN and absurd displacements before they become int.
  const auto reach = static_cast<float>(image.width + image.height);
  if (!(std::fabs(dx) <= reach && std::fabs(dy) <= reach)) return match;
  const int stepX = static_cast<int>(std::lround(dx * kStepsPerSample));
  const int stepY = static_cast<int>(std::lround(dy * kStepsPerSample));
  const int fractionX = stepX & (kStepsPerSample - 1);
  const int fractionY = stepY & (kStepsPerSample - 1);
  // One more sample on each side for the gradient, and one for interpolation.
  const int left = x + (stepX - fractionX) / kStepsPerSample - 1;
  const int top = y + (stepY - fractionY) / kStepsPerSample - 1;
  constexpr int kSide = kBlockSide + 2;
  if (left < 0 || top < 0 || left + kSide >= other.width || top + kSide >= other.height) return match;

  // The other picture at the displaced samples: the block's columns, and the same shifted one to the left and right.
  struct Line {
    Lanes left, middle, right;
  };
  const ptrdiff_t otherStride = other.width;
  const int16_t* from = other.pixels + top * otherStride + left;
  const auto across = [&](const int16_t* line) {
    const Lanes a = Lanes::load(line);
    const Lanes b = Lanes::load(line + 1);
    const Lanes c = Lanes::load(line + 2);
    const Lanes d = Lanes::load(line + 3);
    return Line{a.mixed(b, fractionX), b.mixed(c, fractionX), c.mixed(d, fractionX)};
  };
  const auto down = [&](const Line& upper, const Line& lower) {
    return Line{upper.left.mixed(lower.left, fractionY), upper.middle.mixed(lower.middle, fractionY),
                upper.right.mixed(lower.right, fractionY)};
  };

  const Lanes one = ones<Lanes>();
  const ptrdiff_t stride = image.width;
  const int16_t* at = image.pixels + y * stride + x;
  typename Lanes::Sum bx, by, cxx, cxy, cyx, cyy, sum, squares, energy;
  Line lower = across(from);
  Line next = across(from + otherStride);
  Line above = down(lower, next);
  lower = next;
  next = across(from + 2 * otherStride);
  Line here = down(lower, next);
  for (int row = 0; row < kBlockSide; ++row, at += stride) {
    lower = next;
    next = across(from + (row + 3) * otherStride);
    const Line below = down(lower, next);
    const Lanes slopeX = Lanes::load(at + 1).minus(Lanes::load(at - 1));
    const Lanes slopeY = Lanes::load(at + stride).minus(Lanes::load(at - stride));
    const Lanes otherX = here.right.minus(here.left);
    const Lanes otherY = below.middle.minus(above.middle);
    const Lanes difference = Lanes::load(at).minus(here.middle);
    bx.addProducts(slopeX, difference);
    by.addProducts(slopeY, difference);
    cxx.addProducts(slopeX, otherX);
    cxy.addProducts(slopeX, otherY);
    cyx.addProducts(slopeY, otherX);
    cyy.addProducts(slopeY, otherY);
    sum.addProducts(here.middle, one);
    squares.addProducts(here.middle, here.middle);
    energy.addProducts(difference, difference);
    above = here;
    here = below;
  }
  const auto total = [](const typename Lanes::Sum& s, float scale) { return static_cast<float>(s.total()) * scale; };
  constexpr float kSample = 1.0f / kStepsPerSample;
  match.inside = true;
  match.qx = static_cast<float>(stepX) * kSample;
  match.qy = static_cast<float>(stepY) * kSample;
  match.bx = total(bx, kSlopeLevel);
  match.by = total(by, kSlopeLevel);
  match.cxx = total(cxx, kSlopeSquare);
  match.cxy = total(cxy, kSlopeSquare);
  match.cyx = total(cyx, kSlopeSquare);
  match.cyy = total(cyy, kSlopeSquare);
  match.sum = total(sum, kLevel);
  match.squares = total(squares, kSquare);
  match.energy = total(energy, kSquare);
  return match;
}

template BlockMatch matchBlock<NativeLanes>(const Image&, const Image&, int, int, float, float);
#if defined(__SSE2__) || defined(__ARM_NEON)
template BlockMatch matchBlock<PlainLanes>(const Image&, const Image&, int, int, float, float);
#endif

}  // namespace noxel::tracker
