// Frames with several motions in them: layers of photos in front of each other, each moved by its own amount. Ground truth
// for the motion field. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "scenes/scenes.h"

namespace noxel::scenes {

enum class Layers {
  Parallax,  // a street panned by 4 to 16 pixels: one or two nearer layers, each 1 to 12 pixels off the far one
  Objects,  // one to three objects of 40 to 300 pixels moving by 2 to 20 pixels on their own; a background that is still,
            // trembles or is panned, in turn
};
inline constexpr Layers kLayers[] = {Layers::Parallax, Layers::Objects};
const char* nameOf(Layers layers);  // usable in file names

struct LayeredPair {
  static constexpr uint8_t kMixed = 255;

  std::vector<std::vector<float>> earlier;  // frames before the pair, the oldest first, in levels as the pair's
  ScenePair frames;                         // its motion is that of the background, layer 0
  std::vector<Affine> previousFromCurrent;  // of each layer
  std::vector<uint8_t> layer;               // of each pixel of the current frame; kMixed: of more than one
};

// Pair number `index`. Consecutive numbers cycle through the photos (at least one). Through the `earlier` frames before it
// each layer moves by 0.8 to 1.2 times what it moves by in the pair, all layers alike, as the camera's speed varies.
LayeredPair renderLayers(const std::vector<Photo>& photos, Layers layers, int width, int height, uint64_t seed,
                         int index, int earlier);

}  // namespace noxel::scenes
