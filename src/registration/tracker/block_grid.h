// A pyramid level divided into blocks of 8 x 8 samples, and the sums per block that give its displacement.
#pragma once

#include <cstdint>

#include "registration/tracker/image_pyramid.h"

namespace noxel::tracker {

inline constexpr int kBlockSide = 8;
inline constexpr int kBlockArea = kBlockSide * kBlockSide;
inline constexpr int kStepsPerSample = 16;  // displacements are rounded to sixteenths of a sample

// Sums over a block in its own picture. g is the gradient (central difference), I the sample, in 8-bit levels and
// samples.
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
  bool inside;  // all samples it needs are inside the other picture; otherwise the other fields are invalid
  float qx;     // samples
  float qy;
  float bx;  // sum of g (I - J): right-hand side of Lucas-Kanade
  float by;
  // Sum of g(I) g(J)^T: noise-free slope of b per sample of displacement. Unlike those of gg^T its two factors do not
  // share noise.
  float cxx;
  float cxy;
  float cyx;
  float cyy;
  float sum;      // of J
  float squares;  // of J J
  float energy;   // sum of (I - J)^2
};

struct BlockGrid {
  int columns = 0;
  int rows = 0;
  int originX = 0;  // sample at the first block's corner; at least 1, for the gradients
  int originY = 0;

  BlockGrid() = default;
  BlockGrid(int width, int height);
  int count() const { return columns * rows; }
  int64_t rowSamples() const { return int64_t{columns} * kBlockArea; }  // of a row of blocks
  // In samples, from the picture's corner.
  float centreX(int column) const { return static_cast<float>(originX + kBlockSide * column + kBlockSide / 2); }
  float centreY(int row) const { return static_cast<float>(originY + kBlockSide * row + kBlockSide / 2); }
};

// Sums of rows firstRow..endRow - 1 of the grid into textures[row * columns + column].
void readTextures(const Image& image, const BlockGrid& grid, BlockTexture* textures, int firstRow, int endRow);

// One block against `other`, displaced by (dx, dy) samples, rounded to a sixteenth.
template <class Lanes>
BlockMatch matchBlock(const Image& image, const Image& other, int x, int y, float dx, float dy);

}  // namespace noxel::tracker
