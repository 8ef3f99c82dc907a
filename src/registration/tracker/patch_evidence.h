// What blocks next to each other say together.
#pragma once

#include "registration/tracker/block_grid.h"

namespace noxel::tracker {

// What a patch of up to 3 x 3 blocks says, about the motion its blocks were compared at.
struct PatchEvidence {
  float blocks;  // of the nine, those that could be compared; 0: the middle one could not
  float hxx;     // texture: sums of g g^T
  float hxy;
  float hyy;
  float bx;  // sums of g (I - J)
  float by;
  float cxx;  // texture that both pictures have: sums of g(I) g(J)^T, its symmetric part
  float cxy;
  float cyy;
  float sum;  // of I, J, I I, J J and (I - J)^2
  float otherSum;
  float squares;
  float otherSquares;
  float energy;

  void add(const PatchEvidence& part);

  float shared() const;       // 0..1: the part of the texture that both pictures have
  float correlation() const;  // normalised cross-correlation, mean removed; 0 where there is no variance
  float surprise() const;     // b^T H^-1 b: the squared displacement left, in units of the noise
  // The displacement left, in samples. False without enough texture to tell.
  bool displacement(float* dx, float* dy) const;
};

PatchEvidence evidenceOf(const BlockTexture& texture, const BlockMatch& match);

// Each block's evidence with that of its neighbours to the left and right.
void sumAlongRow(const BlockTexture* textures, const BlockMatch* matches, int count, PatchEvidence* sums);

}  // namespace noxel::tracker
