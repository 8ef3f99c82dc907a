// Which of many displacements belong to one motion of the whole picture.
#pragma once

#include "registration/tracker/global_motion.h"

namespace noxel::tracker {

struct Displaced {
  float u;  // position, as in GlobalMotion
  float v;
  float dx;  // pixels of the registration image
  float dy;
  float weight;  // 0: takes no part
};

struct Consensus {
  GlobalMotion motion;  // the best hypothesis, before any fit
  int inliers = 0;      // points with a weight that lie within the tolerance
  double weight = 0.0;  // their sum
  double total = 0.0;   // of all
};

// The best supported of 64 seeded similarities through two points each and of `known` motions. `tolerance` in pixels.
Consensus findConsensus(const Displaced* points, int count, float tolerance, const GlobalMotion* known, int knownCount);

bool agrees(const Displaced& point, const GlobalMotion& motion, float tolerance);

}  // namespace noxel::tracker
