// What the engine knew of a frame, drawn into its picture.
#pragma once

#include <cstdint>
#include <vector>

#include "api/engine_control.h"
#include "registration/registration_state.h"

namespace noxel::tool {

struct Overlay {
  FrameReport report;
  std::vector<_KRMatch> tracks;  // in frame pixels, the first one's centre at (0.5, 0.5)
  std::vector<uint8_t> mask;     // over the whole picture; empty: the frame was not blended
  int maskWidth = 0;
  int maskHeight = 0;
};

// Into an enhanced NV21 frame. Tracks: a dot at the target and a tail to the source, where stabilisation and zoom have put
// them; green, or red where the frame's motion was rejected; of several in one place the first. Mask: purple, half
// transparent at 255.
void drawOverlay(const Overlay& overlay, uint8_t* nv21, int width, int height);

}  // namespace noxel::tool
