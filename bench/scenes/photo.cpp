#include "scenes/photo.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <limits>
#include <numbers>
#include <utility>

#include "scenes/random.h"

namespace noxel::scenes {
namespace {

constexpr double kMinRadius = 2.5;  // of the procedural shapes, pixels

int mirrored(int i, int size) {
  const int period = 2 * size;
  i = ((i % period) + period) % period;
  return i < size ? i : period - 1 - i;
}

void catmullRom(double t, double weights[4]) {
  weights[0] = t * (t * (1 - 0.5 * t) - 0.5);
  weights[1] = t * t * (1.5 * t - 2.5) + 1;
  weights[2] = t * (t * (2 - 1.5 * t) + 0.5);
  weights[3] = t * t * (0.5 * t - 0.5);
}

struct Point {
  double x;
  double y;
};

// Smooth noise of -1..1 with one random value every `cell` pixels.
void addValueNoise(Photo* photo, int cell, double amplitude, Random& random) {
  const int columns = photo->width / cell + 2;
  const int rows = photo->height / cell + 2;
  std::vector<double> lattice(static_cast<size_t>(columns) * static_cast<size_t>(rows));
  for (double& value : lattice) value = random.uniform(-amplitude, amplitude);
  const auto smooth = [](double t) { return t * t * (3 - 2 * t); };
  for (int y = 0; y < photo->height; ++y) {
    const double v = smooth(static_cast<double>(y % cell) / cell);
    for (int x = 0; x < photo->width; ++x) {
      const double u = smooth(static_cast<double>(x % cell) / cell);
      const double* corner =
          &lattice[static_cast<size_t>(y / cell) * static_cast<size_t>(columns) + static_cast<size_t>(x / cell)];
      const double upper = std::lerp(corner[0], corner[1], u);
      const double lower = std::lerp(corner[columns], corner[columns + 1], u);
      photo->luma[static_cast<size_t>(y) * static_cast<size_t>(photo->width) + static_cast<size_t>(x)] +=
          static_cast<float>(std::lerp(upper, lower, v));
    }
  }
}

// A disc (no sides) or a regular polygon.
struct Shape {
  Point centre;
  double radius;
  int sides;
  double angle;  // radians

  bool covers(Point p) const {
    const double x = p.x - centre.x;
    const double y = p.y - centre.y;
    if (x * x + y * y >= radius * radius) return false;
    for (int side = 0; side < sides; ++side) {
      const double normal = angle + 2 * std::numbers::pi * side / sides;
      if (x * std::cos(normal) + y * std::sin(normal) >= radius * std::cos(std::numbers::pi / sides)) return false;
    }
    return true;
  }
};

void paint(Photo* photo, const Shape& shape, float level) {
  const auto first = [&](double centre) { return std::max(0, static_cast<int>(centre - shape.radius)); };
  const auto last = [&](double centre, int size) {
    return std::min(size - 1, static_cast<int>(centre + shape.radius) + 1);
  };
  for (int y = first(shape.centre.y); y <= last(shape.centre.y, photo->height); ++y) {
    for (int x = first(shape.centre.x); x <= last(shape.centre.x, photo->width); ++x) {
      if (!shape.covers({static_cast<double>(x), static_cast<double>(y)})) continue;
      photo->luma[static_cast<size_t>(y) * static_cast<size_t>(photo->width) + static_cast<size_t>(x)] = level;
    }
  }
}

}  // namespace

double Photo::at(double x, double y) const {
  const double left = std::floor(x);
  const double top = std::floor(y);
  const int column = static_cast<int>(left) - 1;
  const int row = static_cast<int>(top) - 1;
  double across[4];
  double down[4];
  catmullRom(x - left, across);
  catmullRom(y - top, down);
  const bool inside = column >= 0 && row >= 0 && column + 4 <= width && row + 4 <= height;
  double sum = 0;
  for (int j = 0; j < 4; ++j) {
    const float* line =
        &luma[static_cast<size_t>(inside ? row + j : mirrored(row + j, height)) * static_cast<size_t>(width)];
    double lineSum = 0;
    for (int i = 0; i < 4; ++i) {
      lineSum += across[i] * static_cast<double>(line[inside ? column + i : mirrored(column + i, width)]);
    }
    sum += down[j] * lineSum;
  }
  return sum;
}

bool readPhoto(const std::string& path, Photo* photo) {
  constexpr int kMaxSide = 1 << 15;
  std::ifstream file(path, std::ios::binary);
  std::string magic;
  file >> magic;
  if (magic != "P5" && magic != "P6") return false;
  int header[3] = {};  // width, height, max sample
  for (int& value : header) {
    while ((file >> std::ws).peek() == '#') file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    file >> value;
  }
  file.get();
  if (!file || header[0] < 1 || header[1] < 1 || std::max(header[0], header[1]) > kMaxSide || header[2] != 255) {
    return false;
  }

  const size_t channels = magic == "P6" ? 3 : 1;
  const size_t pixels = static_cast<size_t>(header[0]) * static_cast<size_t>(header[1]);
  std::vector<unsigned char> samples(pixels * channels);
  if (!file.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(samples.size()))) return false;
  photo->width = header[0];
  photo->height = header[1];
  photo->luma.resize(pixels);
  for (size_t i = 0; i < pixels; ++i) {
    const unsigned char* s = &samples[i * channels];
    photo->luma[i] = channels == 1 ? static_cast<float>(s[0])
                                   : 0.299f * static_cast<float>(s[0]) + 0.587f * static_cast<float>(s[1]) +
                                         0.114f * static_cast<float>(s[2]);
  }
  return true;
}

Photo proceduralPhoto(int width, int height, uint64_t seed) {
  Random random = {seed};
  Photo photo = {width, height, std::vector<float>(static_cast<size_t>(width) * static_cast<size_t>(height), 110.0f)};
  // Every octave of sizes covers the same area: the density of radii falls with the cube; drawn by inverting its
  // integral.
  const double maxRadius = 0.25 * std::min(width, height);
  const int count = static_cast<int>(0.1 * width * height / (kMinRadius * kMinRadius));
  for (int i = 0; i < count; ++i) {
    const double u = random.uniform(0, 1);
    const double ratio = kMinRadius / maxRadius;
    const double radius = kMinRadius / std::sqrt(1 - u * (1 - ratio * ratio));
    const Point centre = {random.uniform(0, width), random.uniform(0, height)};
    const int sides = random.below(4) == 0 ? 0 : 3 + random.below(4);
    const double angle = random.direction();
    paint(&photo, {centre, radius, sides, angle}, static_cast<float>(random.uniform(20, 230)));
  }
  for (int cell = 256; cell >= 2; cell /= 2) addValueNoise(&photo, cell, 1.5 * std::pow(cell, 0.4), random);
  for (float& value : photo.luma) value = std::clamp(value, 0.0f, 255.0f);
  return photo;
}

bool loadPhotos(const std::vector<std::string>& paths, int standIns, int width, int height, uint64_t seed,
                std::vector<NamedPhoto>* photos, std::string* unreadable) {
  for (const std::string& path : paths) {
    NamedPhoto one;
    one.name = path.substr(path.find_last_of('/') + 1);
    if (!readPhoto(path, &one.photo)) {
      *unreadable = path;
      return false;
    }
    photos->push_back(std::move(one));
  }
  for (int i = 0; i < standIns && paths.empty(); ++i) {
    photos->push_back(
        {"procedural " + std::to_string(i), proceduralPhoto(3 * width, 3 * height, seed + static_cast<uint64_t>(i))});
  }
  return true;
}

}  // namespace noxel::scenes
