#include "scenes/sparse.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "scenes/random.h"

namespace noxel::scenes {
namespace {

constexpr int kSubSamples = 3;  // per side of a pixel
constexpr double kDark = 20;    // levels
constexpr double kBright = 80;

// A lens' edge: rises from 0 to 1 over about two pixels.
double edge(double distance) {
  return 0.5 * (1 + std::tanh(1.5 * distance));
}

// In pixels from the frame's centre; h: the frame's height.
double levelAt(Sparse scene, double x, double y, double h) {
  switch (scene) {
    case Sparse::Horizon:
      return kBright - (kBright - kDark) * edge(y - 0.1 * h - 0.0175 * x);
    case Sparse::DoorEdge:
      return kDark + (kBright - kDark) * edge(x - 0.15 * h);
    case Sparse::Gradient:
      return 70 - 80 * y / h;
    case Sparse::Vignette:
      return 100 * (1 - 0.35 * (x * x + y * y) / (h * h));
    case Sparse::Glow:
      return 25 + 90 * std::exp(-((x + 0.2 * h) * (x + 0.2 * h) + y * y) / (2 * 0.2 * 0.2 * h * h));
    case Sparse::Bars: {
      const double period = h / 9;
      const double phase = x - period * std::floor(x / period);
      return kDark + (kBright - kDark) * (edge(phase - 0.25 * period) - edge(phase - 0.75 * period));
    }
    case Sparse::Corridor: {
      const double r = std::hypot(x, y);
      const double angle = std::atan2(y, x);
      const double phase = 14 / (2 * std::numbers::pi) * angle;
      const double nearest = (0.5 - std::fabs(phase - std::floor(phase) - 0.5)) * 2 * std::numbers::pi / 14;
      return kDark + (kBright - kDark) * edge(3 - r * nearest) * std::min(1.0, r / 20);
    }
  }
  return 0;
}

}  // namespace

const char* nameOf(Sparse scene) {
  constexpr const char* kNames[] = {"horizon", "door edge", "gradient", "vignette", "glow", "bars", "corridor"};
  return kNames[static_cast<int>(scene)];
}

std::vector<float> renderSparse(Sparse scene, const Affine& sceneFromFrame, int width, int height) {
  const double* m = sceneFromFrame.m;
  std::vector<float> frame;
  frame.reserve(static_cast<size_t>(width) * static_cast<size_t>(height));
  for (int row = 0; row < height; ++row) {
    for (int column = 0; column < width; ++column) {
      double sum = 0;
      for (int sample = 0; sample < kSubSamples * kSubSamples; ++sample) {
        const double x = column + (sample % kSubSamples + 0.5) / kSubSamples - 0.5;
        const double y = row + (sample / kSubSamples + 0.5) / kSubSamples - 0.5;
        sum += levelAt(scene, m[0] * x + m[1] * y + m[2] - 0.5 * (width - 1),
                       m[3] * x + m[4] * y + m[5] - 0.5 * (height - 1), height);
      }
      frame.push_back(static_cast<float>(sum / (kSubSamples * kSubSamples)));
    }
  }
  return frame;
}

std::vector<uint8_t> shootWithNoise(const std::vector<float>& frame, double sigma, uint64_t seed) {
  Random random = {seed, 77};
  std::vector<uint8_t> shot;
  shot.reserve(frame.size());
  for (float value : frame) {
    const double level = static_cast<double>(value) + sigma * random.gaussian();
    shot.push_back(static_cast<uint8_t>(std::clamp(level, 0.0, 255.0) + 0.5));
  }
  return shot;
}

const char* nameOf(Fixed what) {
  constexpr const char* kNames[] = {"nothing", "pattern", "letterbox", "pillars", "logo", "dirt"};
  return kNames[static_cast<int>(what)];
}

void layOver(Fixed what, uint64_t seed, int width, int height, std::vector<float>* frame) {
  Random random = {seed, 78};
  const auto at = [&](int x, int y) -> float& {
    return (*frame)[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
  };
  const auto cover = [&](int left, int top, int right, int bottom, float level) {
    for (int y = top; y < bottom; ++y) {
      for (int x = left; x < right; ++x) at(x, y) = level;
    }
  };
  switch (what) {
    case Fixed::Nothing:
      return;
    case Fixed::Pattern:
      for (int y = 0; y < height; ++y) {
        const double row = 3 * random.gaussian();
        for (int x = 0; x < width; ++x) {
          at(x, y) += static_cast<float>(row + 4 * random.gaussian());
          if (random.uniform(0, 1) < 0.003) at(x, y) += static_cast<float>(random.uniform(40, 200));
        }
      }
      return;
    case Fixed::Letterbox:
      cover(0, 0, width, height / 10, 0);
      cover(0, height - height / 10, width, height, 0);
      return;
    case Fixed::PillarBars: {
      const int bar = (width - height * 9 / 16) / 2;
      cover(0, 0, bar, height, 0);
      cover(width - bar, 0, width, height, 0);
      return;
    }
    case Fixed::Logo: {
      const int unit = height / 36;  // an E in a box
      const int left = width - 11 * unit;
      cover(left, unit, left + 9 * unit, 7 * unit, 230);
      for (int arm = 0; arm < 3; ++arm)
        cover(left + 2 * unit, (2 + 2 * arm) * unit, left + 7 * unit, (3 + 2 * arm) * unit, 20);
      return;
    }
    case Fixed::Dirt:
      for (int spot = 0; spot < 12; ++spot) {
        const double x0 = random.uniform(0, width);
        const double y0 = random.uniform(0, height);
        const double radius = random.uniform(0.01, 0.04) * height;
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            at(x, y) *= static_cast<float>(1 - 0.7 * edge(0.5 * (radius - std::hypot(x - x0, y - y0))));
          }
        }
      }
      return;
  }
}

void addBanding(double phase, int width, int height, std::vector<float>* frame) {
  for (int y = 0; y < height; ++y) {
    const double light = 1 + 0.3 * std::sin(2 * std::numbers::pi * (2.0 * y / height + phase));
    for (int x = 0; x < width; ++x) {
      (*frame)[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)] *=
          static_cast<float>(light);
    }
  }
}

}  // namespace noxel::scenes
