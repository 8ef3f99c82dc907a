#include "registration/exposure.h"

#include <algorithm>
#include <cmath>

#include "platform/log.h"

namespace noxel {

void lumaStatistics(const LumaImage& image, int* mean, int* maxLevel, int* minLevel, float fraction) {
  int histogram[256] = {};
  int64_t sum = 0;
  int samples = 0;
  const int64_t pixelCount = int64_t{image.width} * image.height;
  for (int64_t at = 0; at < pixelCount; at += 32) {
    const uint8_t first = image.pixels[at];
    const uint8_t second = image.pixels[std::min(at + 1, pixelCount - 1)];  // the last pixel may have no neighbour
    ++histogram[first];
    ++histogram[second];
    sum += first + second;
    samples += 2;
  }

  *mean = samples > 0 ? static_cast<int>(sum / samples) : 0;
  *minLevel = 255;
  const float upper = static_cast<float>(samples) * fraction;
  const double lower = samples * (1.0 - static_cast<double>(fraction));
  bool minFound = false;
  int below = 0;
  for (int level = 0; level < 256; ++level) {
    const int upTo = below + histogram[level];
    if (!minFound && upTo > lower) {
      *minLevel = level;
      minFound = true;
    }
    if (level > 0 && static_cast<float>(below) < upper && upper <= static_cast<float>(upTo)) *maxLevel = level;
    below = upTo;
  }
}

void updateExposure(ExposureState* state, const LumaImage& image, int mode, int strength) {
  int mean = 0;
  int minLevel = 0;
  lumaStatistics(image, &mean, &state->maxLevel, &minLevel, 0.9999f);

  // ratio^gamma = 1/2: the mean maps to half of the brightest level.
  float gamma = 1.0f;
  const float ratio = state->maxLevel > 0 ? static_cast<float>(mean) / static_cast<float>(state->maxLevel) : 0.0f;
  if (ratio > 0.0f && std::log(ratio) != 0.0f) gamma = -std::log(2.0f) / std::log(ratio);
  if (gamma < 0.0f || gamma > 1.0f) gamma = 1.0f;
  float gain = state->maxLevel < 1 ? 1.0f : 255.0f / static_cast<float>(state->maxLevel);

  float gainCap = 1.75f;
  float gammaFloor = 0.75f;
  if (mode == 1) {
    const auto s = static_cast<float>(strength);
    gainCap = 1.75f + 0.01f * s;
    gammaFloor = 0.75f - 0.001f * s;
    gamma -= 0.0005f * s;
    gain += 0.0015f * s;
  }

  gamma = std::max(gamma, gammaFloor);
  const float eased = std::max(0.8f * state->lastGamma + 0.2f * gamma, gammaFloor);
  if (eased < 0.0f || eased > 100.0f) {
    NOXEL_LOG_INFO("kusee: gamma = %f, lastgamma = %f, meany = %d, maxy = %d", static_cast<double>(eased),
                   static_cast<double>(state->lastGamma), mean, state->maxLevel);
  }
  state->lastGamma = eased;
  gain = std::min(gain, gainCap);
  state->smoothedGain = 0.8f * state->smoothedGain + 0.2f * gain;
  state->smoothedGamma = 0.8f * state->smoothedGamma + 0.2f * eased;
  if (mode == 3) state->smoothedGain = state->smoothedGamma = 1.0f;
}

bool ExposureSettling::settled(float gamma, float gain) {
  const bool quiet = std::fabs(gamma - gamma_) < kSmallChange && std::fabs(gain - gain_) < kSmallChange;
  gamma_ = gamma;
  gain_ = gain;
  quiet_ = quiet ? quiet_ + 1 : 0;
  ++rounds_;
  return rounds_ >= kMaxRounds || (rounds_ >= kMinRounds && quiet_ >= kQuietRounds);
}

}  // namespace noxel
