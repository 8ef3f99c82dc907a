#include "registration/video_noise.h"

#include <algorithm>

namespace noxel {
namespace {

// Of the variance apart to that between neighbours: up to the first it is taken for motion, from the second on for a codec's.
constexpr float kMotion = 1.5f;
constexpr float kCodec = 2.5f;
constexpr float kSmallest = 0.02f;  // variance

constexpr double kIdentity[6] = {1, 0, 0, 0, 1, 0};

// affine = affine * first, which has three rows of three.
void precede(double (&affine)[6], const float* first) {
  for (int row = 0; row < 2; ++row) {
    double* const to = affine + 3 * row;
    const double x = to[0], y = to[1];
    for (int column = 0; column < 2; ++column)
      to[column] = x * static_cast<double>(first[column]) + y * static_cast<double>(first[3 + column]);
    to[2] += x * static_cast<double>(first[2]) + y * static_cast<double>(first[5]);
  }
}

}  // namespace

bool VideoNoise::allocate(int width, int height) {
  return near_.allocate(width, height) && apart_.allocate(width, height);
}

void VideoNoise::restart() {
  near_.restart();
  apart_.restart();
  hasEarlier_ = false;
  curve_ = {};
}

void VideoNoise::measure(const uint8_t* luma, const float* previousFromCurrent, const ChromaPlanes& chroma) {
  near_.measure(luma, previousFromCurrent, chroma);
  const bool follows = hasEarlier_ && previousFromCurrent != nullptr;
  if (follows) {
    precede(earlierFromCurrent_, previousFromCurrent);
    ++frames_;
  }
  if (!follows || frames_ == kApart) {
    float motion[9] = {0, 0, 0, 0, 0, 0, 0, 0, 1};
    for (int i = 0; i < 6; ++i) motion[i] = static_cast<float>(earlierFromCurrent_[i]);
    apart_.measure(luma, follows ? motion : nullptr, chroma);
    std::copy_n(kIdentity, 6, earlierFromCurrent_);
    frames_ = 0;
    hasEarlier_ = true;
  }
  draw();
}

void VideoNoise::draw() {
  curve_ = near_.curve();
  const NoiseCurve& apart = apart_.curve();
  if (!apart_.knowsDifferences() || !curve_.known) return;
  for (int i = 0; i < NoiseCurve::kEntries; ++i) {
    const float ratio = apart.variance[i] / std::max(curve_.variance[i], kSmallest);
    const float share = std::clamp((ratio - kMotion) / (kCodec - kMotion), 0.0f, 1.0f);
    curve_.variance[i] += share * (apart.variance[i] - curve_.variance[i]);
    for (int plane = 0; plane < 2 && apart.chromaKnown; ++plane) {
      float& chroma = curve_.chromaVariance[plane][i];
      chroma += share * std::max(apart.chromaVariance[plane][i] - chroma, 0.0f);
    }
  }
  curve_.chromaKnown = curve_.chromaKnown || apart.chromaKnown;
}

}  // namespace noxel
