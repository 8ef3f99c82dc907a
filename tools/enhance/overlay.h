// Tracks and ghost mask of a frame, drawn into its picture.
#pragma once

#include <cstdint>
#include <vector>

#include "enhance/frame_report.h"
#include "noxel/enhancer.h"

namespace noxel::tool {

struct Overlay {
  FrameReport report;
  std::vector<noxel_track> tracks;     // in frame pixels, the first one's centre at (0.5, 0.5)
  std::vector<noxel_track> ownTracks;  // the same of blocks that move on their own
  std::vector<uint8_t> mask;           // covers the picture; empty: the frame was not blended
  bool maskInFrame = false;            // it covers the frame before stabilisation and zoom
  int maskWidth = 0;
  int maskHeight = 0;
};

// Into an enhanced NV21 frame. Tracks: a dot at the target and a tail to the source, in the stabilised and zoomed picture;
// green, or red when the frame's motion was rejected; yellow where something moves on its own; one per grid cell, yellow
// ones first. Mask: purple, half transparent at 255.
void drawOverlay(const Overlay& overlay, uint8_t* nv21, int width, int height);

}  // namespace noxel::tool
