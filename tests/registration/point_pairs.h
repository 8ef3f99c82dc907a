// Point pairs as the tracker would leave them.
#pragma once

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "registration/registration_state.h"

namespace noxel {

using Pairs = std::vector<_KRMatch>;

// x' = m00 x + m01 y + m02, y' = m10 x + m11 y + m12.
struct Motion {
  double m00 = 1, m01 = 0, m02 = 0;
  double m10 = 0, m11 = 1, m12 = 0;

  _KRMatch operator()(double x, double y, double offsetX = 0, double offsetY = 0) const {
    return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(m00 * x + m01 * y + m02 + offsetX),
            static_cast<float>(m10 * x + m11 * y + m12 + offsetY)};
  }
};

// Points all over the image, with errors of the given standard deviation in each coordinate.
inline Pairs scattered(const Motion& motion, int count, int width, int height, double deviation, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> x(0, width);
  std::uniform_real_distribution<double> y(0, height);
  std::normal_distribution<double> noise(0, 1);
  Pairs pairs;
  for (int i = 0; i < count; ++i) {
    const double at[2] = {x(random), y(random)};
    pairs.push_back(motion(at[0], at[1], deviation * noise(random), deviation * noise(random)));
  }
  return pairs;
}

inline std::unique_ptr<_KROFRegistration> registrationOf(const Pairs& pairs, int width = 320, int height = 180) {
  auto registration = std::make_unique<_KROFRegistration>();
  registration->width = width;
  registration->height = height;
  registration->noiseScale = 1.0f;
  registration->pointCount = static_cast<int>(pairs.size());
  for (size_t i = 0; i < pairs.size(); ++i) {
    registration->sourcePoints[i] = {pairs[i].sourceX, pairs[i].sourceY};
    registration->targetPoints[i] = {pairs[i].targetX, pairs[i].targetY};
    registration->displacements[i] = {pairs[i].targetX - pairs[i].sourceX, pairs[i].targetY - pairs[i].sourceY};
    registration->identifiers[i] = static_cast<int>(1000 + i);
    registration->scores[i] = 1.0f;
  }
  return registration;
}

}  // namespace noxel
