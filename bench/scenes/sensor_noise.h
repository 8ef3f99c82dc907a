// Frames with the noise of a camera whose variance is known. Seeded. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "scenes/photo.h"
#include "scenes/random.h"

namespace noxel::scenes {

enum class Sensor {
  Gaussian,        // white, the same at every luma
  Poisson,         // white: read noise of a quarter of the variance at luma 64, the rest proportional to luma
  GaussianMosaic,  // as above on an RGGB mosaic, interpolated bilinearly to RGB and then weighted to luma: correlated
  PoissonMosaic
};
inline constexpr Sensor kSensors[] = {Sensor::Gaussian, Sensor::Poisson, Sensor::GaussianMosaic, Sensor::PoissonMosaic};
const char* nameOf(Sensor sensor);

// The clean frame as this camera shows it, clamped and rounded to 8 bits. sigma: of the luma, in levels; with Poisson
// noise at luma 64. The signal is not interpolated: the mosaic adds no artefacts of its own, only its noise.
// chroma: if not null, V and U in pairs at half size, each the mean of four pixels; their noise is the mosaic's, or without
// one white with 0.6 of the luma's deviation.
std::vector<uint8_t> shootNoise(const std::vector<float>& clean, int width, int height, Sensor sensor, double sigma,
                                Random& random, std::vector<uint8_t>* chroma = nullptr);

// The clean chroma of that camera's frames: scenes whose colour changes with their luma. plane: 0 U, 1 V.
std::vector<float> cleanChroma(const std::vector<float>& clean, int width, int height, int plane);

std::vector<float> halved(const std::vector<float>& plane, int width, int height);

// The true variance of a clip's noise by luma, measured from its clean twin. Noise is what sets a frame apart from the
// mean of many frames of the same scene, and luma is that mean: the two differ from the clean frame where noise is
// clipped at black.
class TrueNoise {
 public:
  void add(const std::vector<float>& clean, const std::vector<uint8_t>& noisy);
  // Of another plane, by luma.
  void add(const std::vector<float>& luma, const std::vector<float>& clean, const std::vector<float>& noisy);

  struct Entry {
    double variance = 0;
    double share = 0;  // of the pixels
  };
  // Of `count` equal parts of 0..255.
  std::vector<Entry> entries(int count) const;

 private:
  static constexpr int kStepsPerLevel = 4;
  struct Step {
    double pixels = 0;
    double clean = 0;
    double sum = 0;  // of noisy - clean
    double squares = 0;
  };
  Step steps_[256 * kStepsPerLevel];
};

// What is in front of the camera and how it moves; the photo must outlive it.
enum class Movement {
  Still,
  Pan,      // by a few pixels a frame and their fractions, with a tremor
  Parallax  // the same, and a nearer layer over two fifths of the frame that moves further by 1 to 12 pixels a frame
};
inline constexpr Movement kMovements[] = {Movement::Still, Movement::Pan, Movement::Parallax};
const char* nameOf(Movement movement);

// Clean frames, in 8-bit levels, scaled to a mean luma of `mean` (0: as the photo).
std::vector<std::vector<float>> renderClip(const Photo& photo, Movement movement, int width, int height, int frames,
                                           double mean, uint64_t seed);

}  // namespace noxel::scenes
