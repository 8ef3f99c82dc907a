// Point pairs as the tracker hands them to the fit.
#pragma once

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "registration/registration_state.h"
#include "registration/registration_thread.h"
#include "support/waves.h"

namespace noxel {

using Pairs = std::vector<_KRMatch>;

inline bool isIdentity(const float (&matrix)[9]) {
  return std::equal(matrix, matrix + 9, kIdentity3x3);
}

inline _KRMatch moved(const View& m, double x, double y, double offsetX = 0, double offsetY = 0) {
  return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(m[0] * x + m[1] * y + m[2] + offsetX),
          static_cast<float>(m[3] * x + m[4] * y + m[5] + offsetY)};
}

// Random points in the image, with errors of the given standard deviation in each coordinate.
inline Pairs scattered(const View& motion, int count, int width, int height, double deviation, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> x(0, width);
  std::uniform_real_distribution<double> y(0, height);
  std::normal_distribution<double> noise(0, 1);
  Pairs pairs;
  for (int i = 0; i < count; ++i) {
    const double at[2] = {x(random), y(random)};
    pairs.push_back(moved(motion, at[0], at[1], deviation * noise(random), deviation * noise(random)));
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
