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

// The best supported of 64 seeded similarities through two points each and of `known` motions, by the weights of the points
// within the tolerance (pixels), and fitted to them.
GlobalMotion findConsensus(const Displaced* points, int count, float tolerance, const GlobalMotion* known,
                           int knownCount);

bool agrees(const Displaced& point, const GlobalMotion& motion, float tolerance);

}  // namespace noxel::tracker
