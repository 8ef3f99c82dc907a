// The 4 x 1 texture that picks a luma sample out of a packed texel.
#pragma once

#include "gl/runtime/texture.h"

namespace noxel {

// Texel k is 255 in channel k and 0 elsewhere; nearest, repeating: sampled at (column / 4) it selects channel column
// mod 4. The caller owns it (Release, then delete). Null when memory ran out. GPU thread only.
Texture* createSelectorTexture();

}  // namespace noxel
