// Sums over neighbouring blocks.
#pragma once

#include "registration/tracker/block_grid.h"

namespace noxel::tracker {

// Sums over a patch of up to 3 x 3 blocks, relative to the motion its blocks were compared at.
struct PatchEvidence {
  float blocks;  // number compared; 0: the middle one could not be
  float hxx;     // texture: sums of g g^T
  float hxy;
  float hyy;
  float bx;  // sums of g (I - J)
  float by;
  float cxx;  // texture in both pictures: sums of g(I) g(J)^T, symmetric part
  float cxy;
  float cyy;
  float sum;  // of I, J, I I, J J and (I - J)^2
  float otherSum;
  float squares;
  float otherSquares;
  float energy;

  void add(const PatchEvidence& part);

  float shared() const;       // 0..1: the share of the texture that both pictures have
  float correlation() const;  // normalised cross-correlation, mean removed; 0 without variance
  float surprise() const;     // b^T H^-1 b: squared residual displacement, in units of the noise
  // Residual displacement in samples. False without enough texture.
  bool displacement(float* dx, float* dy) const;
};

PatchEvidence evidenceOf(const BlockTexture& texture, const BlockMatch& match);

// Per block, the sum with its left and right neighbour.
void sumAlongRow(const BlockTexture* textures, const BlockMatch* matches, int count, PatchEvidence* sums);

}  // namespace noxel::tracker
