#include "scenes/sensor_noise.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "scenes/scenes.h"

namespace noxel::scenes {
namespace {

constexpr double kPoissonLuma = 64;  // where Poisson noise has the stated sigma
constexpr double kReadShare = 0.25;  // of its variance there
constexpr double kLumaWeights[3] = {0.299, 0.587, 0.114};
constexpr double kChromaWeights[2][3] = {{-0.169, -0.331, 0.5}, {0.5, -0.419, -0.081}};
constexpr double kWhiteChroma = 0.6;         // of luma's deviation
constexpr double kColour[2] = {0.2, -0.15};  // levels of U, V for a level of luma
constexpr double kColourless = 60;           // luma

// Electrons: by counting exponential waiting times, above kManyElectrons as the Gaussian that they approach.
double poissonCount(double mean, Random& random) {
  constexpr double kManyElectrons = 40;
  if (mean > kManyElectrons) return std::max(0.0, std::round(mean + std::sqrt(mean) * random.gaussian()));
  const double limit = std::exp(-mean);
  double product = random.uniform(0, 1);
  int count = 0;
  for (; product > limit; ++count) product *= random.uniform(0, 1);
  return count;
}

double noiseAt(double level, bool poisson, double sigma, Random& random) {
  if (!poisson) return sigma * random.gaussian();
  const double levelsPerElectron = (1 - kReadShare) * sigma * sigma / kPoissonLuma;
  const double electrons = std::max(level, 0.0) / levelsPerElectron;
  const double shot = levelsPerElectron * (poissonCount(electrons, random) - electrons);
  return shot + std::sqrt(kReadShare) * sigma * random.gaussian();
}

// Variance of the luma of white noise of variance 1 on the mosaic: half of the greens, and a quarter of the reds and
// blues, are samples; the others means of two or four of them.
double mosaicGain() {
  const double green = 0.5 + 0.5 / 4;
  const double redOrBlue = 0.25 + 0.5 / 2 + 0.25 / 4;
  return kLumaWeights[0] * kLumaWeights[0] * redOrBlue + kLumaWeights[1] * kLumaWeights[1] * green +
         kLumaWeights[2] * kLumaWeights[2] * redOrBlue;
}

int mirroredAt(int i, int size) {
  if (i < 0) i = -i;
  if (i >= size) i = 2 * size - 2 - i;
  return std::clamp(i, 0, size - 1);
}

// The weighted noise of bilinear interpolation: each colour's samples, zero between them, under (1 2 1)^2 / 4, green under
// the cross of 1, 4 and 1 over 4.
std::vector<float> demosaiced(const std::vector<float>& mosaic, const double (&weights)[3], int width, int height) {
  std::vector<float> luma(mosaic.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double sum = 0;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          const int column = mirroredAt(x + dx, width);
          const int row = mirroredAt(y + dy, height);
          const int colour = row % 2 == 0 ? column % 2 : 1 + column % 2;  // R G over G B
          const double weight = colour == 1 ? (dx == 0 && dy == 0   ? 4
                                               : dx == 0 || dy == 0 ? 1
                                                                    : 0)
                                            : (2 - std::abs(dx)) * (2 - std::abs(dy));
          sum += weights[colour] * weight / 4 *
                 static_cast<double>(
                     mosaic[static_cast<size_t>(row) * static_cast<size_t>(width) + static_cast<size_t>(column)]);
        }
      }
      luma[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)] = static_cast<float>(sum);
    }
  }
  return luma;
}

}  // namespace

const char* nameOf(Sensor sensor) {
  switch (sensor) {
    case Sensor::Gaussian:
      return "gauss";
    case Sensor::Poisson:
      return "poisson";
    case Sensor::GaussianMosaic:
      return "gauss-mosaic";
    case Sensor::PoissonMosaic:
      return "poisson-mosaic";
  }
  return "";
}

const char* nameOf(Movement movement) {
  switch (movement) {
    case Movement::Still:
      return "still";
    case Movement::Pan:
      return "pan";
    case Movement::Parallax:
      return "parallax";
  }
  return "";
}

std::vector<uint8_t> shootNoise(const std::vector<float>& clean, int width, int height, Sensor sensor, double sigma,
                                Random& random, std::vector<uint8_t>* chroma) {
  const bool poisson = sensor == Sensor::Poisson || sensor == Sensor::PoissonMosaic;
  const bool mosaic = sensor == Sensor::GaussianMosaic || sensor == Sensor::PoissonMosaic;
  const double onSensor = mosaic ? sigma / std::sqrt(mosaicGain()) : sigma;
  std::vector<float> noise;
  noise.reserve(clean.size());
  for (const float level : clean) {
    noise.push_back(static_cast<float>(noiseAt(static_cast<double>(level), poisson, onSensor, random)));
  }
  if (chroma != nullptr) {
    const int chromaWidth = width / 2;
    chroma->resize(2 * static_cast<size_t>(chromaWidth) * static_cast<size_t>(height / 2));
    const std::vector<float> luma = halved(clean, width, height);
    for (int plane = 0; plane < 2; ++plane) {
      const std::vector<float> picture = cleanChroma(clean, width, height, plane);
      std::vector<float> added;
      if (mosaic) {
        added = halved(demosaiced(noise, kChromaWeights[plane], width, height), width, height);
      } else {
        for (const float level : luma)
          added.push_back(
              static_cast<float>(kWhiteChroma * noiseAt(static_cast<double>(level), poisson, sigma, random)));
      }
      for (size_t i = 0; i < picture.size(); ++i) {
        (*chroma)[2 * i + (plane == 0 ? 1 : 0)] =
            static_cast<uint8_t>(std::clamp(picture[i] + added[i], 0.0f, 255.0f) + 0.5f);
      }
    }
  }
  if (mosaic) noise = demosaiced(noise, kLumaWeights, width, height);
  std::vector<uint8_t> frame;
  frame.reserve(clean.size());
  for (size_t i = 0; i < clean.size(); ++i) {
    frame.push_back(static_cast<uint8_t>(std::clamp(clean[i] + noise[i], 0.0f, 255.0f) + 0.5f));
  }
  return frame;
}

std::vector<float> halved(const std::vector<float>& plane, int width, int height) {
  std::vector<float> half;
  const auto at = [&](int x, int y) {
    return plane[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
  };
  for (int y = 0; y + 1 < height; y += 2) {
    for (int x = 0; x + 1 < width; x += 2)
      half.push_back((at(x, y) + at(x + 1, y) + at(x, y + 1) + at(x + 1, y + 1)) / 4);
  }
  return half;
}

std::vector<float> cleanChroma(const std::vector<float>& clean, int width, int height, int plane) {
  std::vector<float> chroma = halved(clean, width, height);
  for (float& level : chroma)
    level = static_cast<float>(128 + kColour[plane] * (static_cast<double>(level) - kColourless));
  return chroma;
}

void TrueNoise::add(const std::vector<float>& clean, const std::vector<uint8_t>& noisy) {
  add(clean, clean, {noisy.begin(), noisy.end()});
}

void TrueNoise::add(const std::vector<float>& luma, const std::vector<float>& clean, const std::vector<float>& noisy) {
  constexpr int kSteps = 256 * kStepsPerLevel;
  for (size_t i = 0; i < clean.size(); ++i) {
    const double level = static_cast<double>(luma[i]);
    Step& step = steps_[std::clamp(static_cast<int>(level * kStepsPerLevel), 0, kSteps - 1)];
    const double noise = static_cast<double>(noisy[i] - clean[i]);
    step.pixels += 1;
    step.clean += level;
    step.sum += noise;
    step.squares += noise * noise;
  }
}

std::vector<TrueNoise::Entry> TrueNoise::entries(int count) const {
  std::vector<Entry> entries(static_cast<size_t>(count));
  double all = 0;
  for (const Step& step : steps_) {
    if (step.pixels < 2) continue;
    all += step.pixels;
    const double variance = (step.squares - step.sum * step.sum / step.pixels) * step.pixels / (step.pixels - 1);
    const double mean = (step.clean + step.sum) / step.pixels;
    Entry& entry = entries[static_cast<size_t>(std::clamp(static_cast<int>((mean + 0.5) * count / 256), 0, count - 1))];
    entry.variance += variance;
    entry.share += step.pixels;
  }
  for (Entry& entry : entries) {
    if (entry.share > 0) entry.variance /= entry.share;
    entry.share /= std::max(all, 1.0);
  }
  return entries;
}

std::vector<std::vector<float>> renderClip(const Photo& photo, Movement movement, int width, int height, int frames,
                                           double mean, uint64_t seed) {
  Random random = {seed};
  const StillScene far = drawStillScene(photo, width, height, seed);
  const StillScene near = drawStillScene(photo, width, height, seed + 1);
  const double angle = random.direction();
  const double speed = random.uniform(1.5, 6);
  const double ahead = random.uniform(1, 12);
  std::vector<std::vector<float>> clip;
  double x = 0;
  double y = 0;
  double nearX = 0;
  double nearY = 0;
  for (int frame = 0; frame < frames; ++frame) {
    if (frame > 0 && movement == Movement::Still) {
      clip.push_back(clip.front());
      continue;
    }
    std::vector<float> picture = renderView(far, {{1, 0, x, 0, 1, y}}, width, height);
    if (movement == Movement::Parallax) {
      // Posts that pass by: two fifths of the scene's width, a period of 120 pixels.
      const std::vector<float> layer = renderView(near, {{1, 0, x + nearX, 0, 1, y + nearY}}, width, height);
      for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
          const double across = column + x + nearX;
          const size_t at = static_cast<size_t>(row) * static_cast<size_t>(width) + static_cast<size_t>(column);
          if (across - 120 * std::floor(across / 120) < 48) picture[at] = layer[at];
        }
      }
    }
    clip.push_back(std::move(picture));
    // The view stays within the margin around the scene: there and back again.
    const double direction = frame / 6 % 2 == 0 ? 1 : -1;
    x += direction * speed * std::cos(angle) + random.uniform(-0.7, 0.7);
    y += direction * speed * std::sin(angle) * 0.5 + random.uniform(-0.7, 0.7);
    nearX += direction * ahead * std::cos(angle);
    nearY += direction * ahead * std::sin(angle) * 0.5;
  }
  if (mean > 0) {
    double sum = 0;
    for (const float level : clip.front()) sum += static_cast<double>(level);
    const double gain = mean * static_cast<double>(clip.front().size()) / std::max(sum, 1.0);
    for (std::vector<float>& picture : clip) {
      for (float& level : picture) level = static_cast<float>(static_cast<double>(level) * gain);
    }
  }
  for (std::vector<float>& picture : clip) {
    for (float& level : picture) level = std::clamp(level, 0.0f, 255.0f);
  }
  return clip;
}

}  // namespace noxel::scenes
