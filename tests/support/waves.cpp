#include "support/waves.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace noxel {

View shifted(double x, double y) {
  return {1, 0, x, 0, 1, y};
}

View turned(double angleRad, double scale, double x, double y, double shiftX, double shiftY) {
  const double c = scale * std::cos(angleRad), s = scale * std::sin(angleRad);
  return composed({c, -s, x + shiftX, s, c, y + shiftY}, shifted(-x, -y));
}

View composed(const View& l, const View& r) {
  return {l[0] * r[0] + l[1] * r[3], l[0] * r[1] + l[1] * r[4], l[0] * r[2] + l[1] * r[5] + l[2],
          l[3] * r[0] + l[4] * r[3], l[3] * r[1] + l[4] * r[4], l[3] * r[2] + l[4] * r[5] + l[5]};
}

View inverted(const View& v) {
  const double d = v[0] * v[4] - v[1] * v[3];
  return composed({v[4] / d, -v[1] / d, 0, -v[3] / d, v[0] / d, 0}, shifted(-v[2], -v[5]));
}

void store(float (&matrix)[9], const View& view) {
  for (size_t i = 0; i < view.size(); ++i) matrix[i] = static_cast<float>(view[i]);
}

Waves::Waves(unsigned seed, double shortestPixels, double longestPixels) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> share(0, 1);
  double power = 0;
  for (Wave& wave : waves_) {
    const double length = shortestPixels * std::pow(longestPixels / shortestPixels, share(random));
    const double direction = std::numbers::pi * share(random), frequency = 2 * std::numbers::pi / length;
    const double amplitude = std::sqrt(length);
    wave = {amplitude, frequency * std::cos(direction), frequency * std::sin(direction), 7 * share(random)};
    power += amplitude * amplitude / 2;
  }
  for (Wave& wave : waves_) wave.amplitude *= 35 / std::sqrt(power);
}

double Waves::at(double x, double y) const {
  double level = 110;
  for (const Wave& wave : waves_) level += wave.amplitude * std::cos(wave.x * x + wave.y * y + wave.phase);
  return level;
}

std::vector<uint8_t> Waves::seen(int width, int height, const View& v, double sigma, unsigned noiseSeed) const {
  std::mt19937 random(noiseSeed);
  std::normal_distribution<double> noise(0, 1);
  std::vector<uint8_t> pixels;
  for (int row = 0; row < height; ++row) {
    for (int column = 0; column < width; ++column) {
      const double x = column + 0.5, y = row + 0.5;
      const double level = at(v[0] * x + v[1] * y + v[2], v[3] * x + v[4] * y + v[5]) + sigma * noise(random);
      pixels.push_back(static_cast<uint8_t>(std::lround(std::clamp(level, 0.0, 255.0))));
    }
  }
  return pixels;
}

}  // namespace noxel
