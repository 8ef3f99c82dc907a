// Frame pairs, and single views, of a still scene under a known camera motion, rendered from photos: the truth that
// registration is held to.
//
// All frames of a scene are integrals of the same continuous picture, so the motion between them is exact to any fraction
// of a pixel. Everything is drawn from seeds. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "scenes/photo.h"

namespace noxel::scenes {

// Takes pixel coordinates to pixel coordinates, the centre of the first pixel at (0, 0): x' = m[0] x + m[1] y + m[2],
// y' = m[3] x + m[4] y + m[5].
struct Affine {
  double m[6] = {1, 0, 0, 0, 1, 0};
};
Affine inverse(const Affine& affine);

// Root mean square over the corner pixels of a width x height frame of the distance between the two images of each.
double cornerError(const Affine& measured, const Affine& truth, int width, int height);

enum class Motion {
  Tremor,      // up to 4 pixels, 0.5 degrees of roll, 0.3 % of zoom
  Pan,         // 10 to 40 pixels, with a quarter of the tremor
  Rotation,    // up to 3 degrees, with a quarter of the tremor
  Zoom,        // up to 3 %, with a quarter of the tremor
  LowTexture,  // tremor, contrast flattened to a standard deviation of 10 levels
  Repetitive,  // tremor, a tile of 24 to 64 pixels all over the frame, slightly modulated by the photo
  Object,      // tremor, a darker 40 % of the frame moving 4 to 12 pixels its own way; the truth is the background's
};
inline constexpr Motion kMotions[] = {Motion::Tremor,     Motion::Pan,        Motion::Rotation, Motion::Zoom,
                                      Motion::LowTexture, Motion::Repetitive, Motion::Object};
const char* nameOf(Motion motion);  // usable in file names

enum class Light {
  Clean,  // as rendered: rounding to 8 bits is the only error
  Dim,    // scaled to a mean of 60, noise of 3 levels
  Dark,   // scaled to a mean of 24, noise of 8 levels
};
inline constexpr Light kLights[] = {Light::Clean, Light::Dim, Light::Dark};
const char* nameOf(Light light);

struct ScenePair {
  int width = 0;
  int height = 0;
  std::vector<float> previous;  // in 8-bit levels, neither rounded nor clamped
  std::vector<float> current;
  Affine currentFromPrevious;
};

// Pair number `index` of a class. Consecutive numbers take the photos in turn; `photos` is not empty.
ScenePair renderPair(const std::vector<Photo>& photos, Motion motion, int width, int height, uint64_t seed, int index);

struct FramePair {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> previous;  // tightly packed
  std::vector<uint8_t> current;
};

// What a camera makes of the pair: both frames under the same gain, each with its own independent Gaussian noise.
FramePair expose(const ScenePair& pair, Light light, uint64_t seed);

// A still scene for a clip of any views: a textured part of a photo, which has to outlive it. Beyond the photo's edges the
// scene is its mirror image.
struct StillScene {
  const Photo* photo = nullptr;
  double left = 0;  // photo pixel at the scene's origin
  double top = 0;
  double scale = 1;  // photo pixels a frame pixel
};
StillScene drawStillScene(const Photo& photo, int width, int height, uint64_t seed);

// In 8-bit levels, neither rounded nor clamped.
std::vector<float> renderView(const StillScene& scene, const Affine& sceneFromFrame, int width, int height);

// Gain that gives a frame the mean of this light; all frames of a clip have that of the first one.
double gainFor(Light light, const std::vector<float>& frame);
std::vector<uint8_t> expose(const std::vector<float>& frame, Light light, double gain, uint64_t seed);

}  // namespace noxel::scenes
