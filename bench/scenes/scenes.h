// Frame pairs, and single views, of a still scene under a known camera motion, rendered from photos: ground truth for
// registration.
//
// All frames of a scene integrate the same continuous picture, so the motion between them is exact to any fraction of a
// pixel. Everything is seeded. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "scenes/photo.h"

namespace noxel::scenes {

// On pixel coordinates, the centre of the first pixel at (0, 0): x' = m[0] x + m[1] y + m[2], y' = m[3] x + m[4] y +
// m[5].
struct Affine {
  double m[6] = {1, 0, 0, 0, 1, 0};
};
struct Point {
  double x;
  double y;
};
Point apply(const Affine& affine, Point p);
Affine inverse(const Affine& affine);

// Rms over the corner pixels of a width x height frame of the distance between their two images.
double cornerError(const Affine& measured, const Affine& truth, int width, int height);

enum class Motion {
  Tremor,      // up to 4 pixels, 0.5 degrees of roll, 0.3 % of zoom
  Pan,         // 10 to 40 pixels, with a quarter of the tremor
  Rotation,    // up to 3 degrees, with a quarter of the tremor
  Zoom,        // up to 3 %, with a quarter of the tremor
  LowTexture,  // tremor, contrast flattened to a standard deviation of 10 levels
  Repetitive,  // tremor, a repeated tile of 24 to 64 pixels, slightly modulated by the photo
  Object,      // tremor, a darker object on 40 % of the frame moving by 4 to 12 pixels; the truth is the background's
};
inline constexpr Motion kMotions[] = {Motion::Tremor,     Motion::Pan,        Motion::Rotation, Motion::Zoom,
                                      Motion::LowTexture, Motion::Repetitive, Motion::Object};
const char* nameOf(Motion motion);  // usable in file names

enum class Light {
  Clean,  // as rendered, rounded to 8 bits
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

// Pair number `index` of a class. Consecutive numbers cycle through the photos (at least one).
ScenePair renderPair(const std::vector<Photo>& photos, Motion motion, int width, int height, uint64_t seed, int index);

struct FramePair {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> previous;  // tightly packed
  std::vector<uint8_t> current;
};

// The pair as a camera records it: the same gain for both frames, independent Gaussian noise.
FramePair expose(const ScenePair& pair, Light light, uint64_t seed);

// A still scene for a clip: a textured part of a photo, which must outlive it. The photo is mirrored at its edges.
struct StillScene {
  const Photo* photo = nullptr;
  double left = 0;  // photo pixel at the scene's origin
  double top = 0;
  double scale = 1;  // photo pixels per frame pixel
};
StillScene drawStillScene(const Photo& photo, int width, int height, uint64_t seed);

// In 8-bit levels, neither rounded nor clamped.
std::vector<float> renderView(const StillScene& scene, const Affine& sceneFromFrame, int width, int height);

// The gain that gives a frame this light's mean; a clip uses that of its first frame.
double gainFor(Light light, const std::vector<float>& frame);
std::vector<uint8_t> expose(const std::vector<float>& frame, Light light, double gain, uint64_t seed);

}  // namespace noxel::scenes
