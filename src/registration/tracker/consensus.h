// The global motion that most of many displacements agree on (RANSAC).
#pragma once

#include "registration/tracker/global_motion.h"

namespace noxel::tracker {

struct Displaced {
  float u;  // position, as in GlobalMotion
  float v;
  float dx;  // pixels of the registration image
  float dy;
  float weight;  // 0: ignored
};

// The best of 64 similarities through two random points each, from a fixed seed, and of the `known` motions: the one
// with the largest sum of weights within the tolerance (pixels), refitted to these points.
GlobalMotion findConsensus(const Displaced* points, int count, float tolerance, const GlobalMotion* known,
                           int knownCount);

bool agrees(const Displaced& point, const GlobalMotion& motion, float tolerance);

}  // namespace noxel::tracker
