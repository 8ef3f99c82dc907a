// How a row of the pass tables is drawn.
#pragma once

#include "gl/engine/sequences.h"

namespace noxel {

// What a pass is drawn with. Pointers are borrowed; matrices are column-major 4 x 4 and act on texture coordinates of the output
// pixel, except `transform`, which acts on clip space.
struct PassInput {
  PassContext context;
  GLuint textures[kMaxSamplers] = {};         // in the order of the pass's reads
  const float* transform = kIdentityMatrix;   // m_Transform
  const float* warp = kIdentityMatrix;        // m_Warp
  const float* warpLatest = kIdentityMatrix;  // m_WarpLatest, as the next: kr_w9
  const float* warpLatestTm = kIdentityMatrix;
  const float* corners = gSquareVertices;  // four x, y pairs
};

// Draws into the bound target. A program gets what it declares and nothing else: a name that GL does not know would be a log
// line a frame.
void drawPass(const Pass& pass, const PassInput& input, Program* program);

}  // namespace noxel
