// One pyramid level cut into blocks of 8 x 8 samples, and what each block says about its own displacement.
#pragma once

#include <cstdint>

#include "registration/tracker/image_pyramid.h"

namespace noxel::tracker {

inline constexpr int kBlockSide = 8;
inline constexpr int kBlockArea = kBlockSide * kBlockSide;
inline constexpr int kStepsPerSample = 16;  // displacements are measured at sixteenths of a sample

// Sums over a block of its own picture. g is the gradient (central difference), I the sample, in 8-bit levels and samples.
struct BlockTexture {
  float gxx;  // sum of gx gx
  float gxy;
  float gyy;
  float gx;
  float gy;
  float gxI;  // sum of gx I
  float gyI;
  float sum;      // of I
  float squares;  // of I I
};

// A block of one picture compared with another picture J at a displacement q: I(x) against J(x + q).
struct BlockMatch {
  bool inside;  // all the samples it needs are in the other picture; otherwise nothing else here counts
  float qx;     // samples
  float qy;
  float bx;  // sum of g (I - J): Lucas and Kanade's right-hand side
  float by;
  float
      cxx;  // sum of g(I) g(J)^T: what b falls by, in truth, for each sample of displacement added. Unlike gg^T it has no
  float cxy;  // share from noise, which the two pictures do not have in common.
  float cyx;
  float cyy;
  float sum;      // of J
  float squares;  // of J J
  float energy;   // sum of (I - J)^2
};

struct BlockGrid {
  int columns = 0;
  int rows = 0;
  int originX = 0;  // sample at the first block's corner; at least 1, so that gradients exist
  int originY = 0;

  BlockGrid() = default;
  BlockGrid(int width, int height);
  int count() const { return columns * rows; }
  int64_t rowSamples() const { return int64_t{columns} * kBlockArea; }  // of a row of blocks
  // In samples, from the corner of the picture.
  float centreX(int column) const { return static_cast<float>(originX + kBlockSide * column + kBlockSide / 2); }
  float centreY(int row) const { return static_cast<float>(originY + kBlockSide * row + kBlockSide / 2); }
};

// Sums of rows firstRow..endRow - 1 of the grid into textures[row * columns + column].
void readTextures(const Image& image, const BlockGrid& grid, BlockTexture* textures, int firstRow, int endRow);

// One block against `other`, displaced by (dx, dy) samples, rounded to a sixteenth.
template <class Lanes>
BlockMatch matchBlock(const Image& image, const Image& other, int x, int y, float dx, float dy);

}  // namespace noxel::tracker
