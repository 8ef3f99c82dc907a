#include "scene_pairs.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <numbers>
#include <random>

namespace noxel::scenes {
namespace {

constexpr int kSubSamples = 4;       // a side of a pixel
constexpr double kMargin = 48;       // frame pixels kept around a crop: the largest pan, and some tremor
constexpr double kMinScale = 2.5;  // photo pixels a frame pixel, where the photo has as many
constexpr double kMaxScale = 3.5;
constexpr double kObjectBrightness = 0.6;  // of its photo
constexpr int kCropCandidates = 8;
constexpr double kFlatContrast = 10;     // standard deviation in levels
constexpr double kTileShare = 0.85;      // of the repetitive texture; the rest is the photo
constexpr double kObjectArea = 0.4;      // of the frame
constexpr double kTremorPixels = 4;      // largest shift
constexpr double kTremorRoll = 0.5;      // degrees
constexpr double kTremorZoom = 0.003;    // relative
constexpr double kAccompanying = 0.25;   // share of the tremor beside another motion
constexpr double kMinRadius = 2.5;  // of the procedural shapes, pixels

// The standard distributions differ between libraries; these do not.
class Random {
 public:
  Random(std::initializer_list<uint64_t> seeds) {
    std::vector<uint32_t> words;
    for (uint64_t seed : seeds) {
      words.push_back(static_cast<uint32_t>(seed));
      words.push_back(static_cast<uint32_t>(seed >> 32));
    }
    std::seed_seq sequence(words.begin(), words.end());
    engine.seed(sequence);
  }

  double uniform(double low, double high) {
    return low + (high - low) * (static_cast<double>(engine() >> 11) * 0x1p-53);
  }
  int below(size_t count) { return static_cast<int>(engine() % count); }
  double direction() { return uniform(-std::numbers::pi, std::numbers::pi); }

  double gaussian() {  // Box and Muller, two at a time
    if (hasSpare) {
      hasSpare = false;
      return spare;
    }
    const double radius = std::sqrt(-2 * std::log(1 - uniform(0, 1)));
    const double angle = direction();
    spare = radius * std::sin(angle);
    hasSpare = true;
    return radius * std::cos(angle);
  }

 private:
  std::mt19937_64 engine;
  double spare = 0;
  bool hasSpare = false;
};

struct Point {
  double x;
  double y;
};

Point apply(const Affine& affine, Point p) {
  const double* m = affine.m;
  return {m[0] * p.x + m[1] * p.y + m[2], m[3] * p.x + m[4] * p.y + m[5]};
}

// Roll and zoom about the centre of the frame, then the shift.
Affine cameraMotion(double rollDegrees, double zoom, Point shift, int width, int height) {
  const double angle = rollDegrees * std::numbers::pi / 180;
  const double c = zoom * std::cos(angle);
  const double s = zoom * std::sin(angle);
  const Point centre = {0.5 * (width - 1), 0.5 * (height - 1)};
  return {{c, -s, centre.x - c * centre.x + s * centre.y + shift.x, s, c,
           centre.y - s * centre.x - c * centre.y + shift.y}};
}

Affine drawMotion(Motion motion, int width, int height, Random& random) {
  const bool alone = motion != Motion::Pan && motion != Motion::Rotation && motion != Motion::Zoom;
  const double share = alone ? 1 : kAccompanying;
  double roll = random.uniform(-1, 1) * kTremorRoll * share;
  double zoom = 1 + random.uniform(-1, 1) * kTremorZoom * share;
  double distance = random.uniform(0, 1) * kTremorPixels * share;
  const double direction = random.direction();
  if (motion == Motion::Pan) distance = random.uniform(10, 40);
  if (motion == Motion::Rotation) roll = random.uniform(-3, 3);
  if (motion == Motion::Zoom) zoom = 1 + random.uniform(-0.03, 0.03);
  return cameraMotion(roll, zoom, {distance * std::cos(direction), distance * std::sin(direction)}, width, height);
}

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

// Part of a photo seen by the frame: frame pixel p shows photo point origin + scale * p.
struct Crop {
  const Photo* photo;
  Point origin;
  double scale;

  double at(Point p) const { return photo->at(origin.x + scale * p.x, origin.y + scale * p.y); }
};

// How much a step of one frame pixel changes the picture, relative to its brightness; a sparse sample.
double textureOf(const Crop& crop, int width, int height) {
  constexpr int kStep = 12;  // frame pixels
  double change = 0;
  double level = 0;
  for (int y = 0; y < height; y += kStep) {
    for (int x = 0; x < width; x += kStep) {
      const Point p = {static_cast<double>(x), static_cast<double>(y)};
      const double value = crop.at(p);
      change += std::abs(crop.at({p.x + 1, p.y}) - value) + std::abs(crop.at({p.x, p.y + 1}) - value);
      level += value;
    }
  }
  return change / std::max(level, 1.0);
}

enum class Pick { MaxTexture, MinTexture };

// One of a few random crops. The background is the most textured: a camera is pointed at something, and much of a large
// photo is sky or out of focus. Many photo pixels a frame pixel hide the softness of the photo; one that is too small for
// that is shown whole.
Crop drawCrop(const Photo& photo, Pick pick, int width, int height, Random& random) {
  const double fit = std::min(photo.width / (width + 2 * kMargin), photo.height / (height + 2 * kMargin));
  Crop best = {};
  double bestScore = -std::numeric_limits<double>::infinity();
  for (int candidate = 0; candidate < kCropCandidates; ++candidate) {
    const double scale = random.uniform(std::min(fit, kMinScale), std::min(fit, kMaxScale));
    const double x = random.uniform(0, photo.width - scale * (width + 2 * kMargin));
    const double y = random.uniform(0, photo.height - scale * (height + 2 * kMargin));
    const Crop crop = {&photo, {scale * kMargin + x, scale * kMargin + y}, scale};
    const double score = textureOf(crop, width, height) * (pick == Pick::MaxTexture ? 1 : -1);
    if (score > bestScore) {
      best = crop;
      bestScore = score;
    }
  }
  return best;
}

double positiveRemainder(double x, double period) {
  return x - period * std::floor(x / period);
}

// The scene in coordinates of the previous frame.
struct Scene {
  Crop crop = {};
  Crop tile = {};
  double tileSide = 0;  // frame pixels; 0: no tile

  double at(Point p) const {
    const double photo = crop.at(p);
    if (tileSide == 0) return photo;
    const double pattern = tile.at({positiveRemainder(p.x, tileSide), positiveRemainder(p.y, tileSide)});
    return kTileShare * pattern + (1 - kTileShare) * photo;
  }
};

// A rectangle in front of the scene, in coordinates of the previous frame.
struct MovingObject {
  Crop texture = {};
  Point low = {};
  Point high = {};  // low = high: no object
  Affine previousFromFrame;

  bool covers(Point p) const { return p.x >= low.x && p.x < high.x && p.y >= low.y && p.y < high.y; }
};

// Each pixel is the mean of the scene over its square.
std::vector<float> render(const Scene& scene, const Affine& previousFromFrame, const MovingObject& object, int width,
                          int height) {
  std::vector<float> frame;
  frame.reserve(static_cast<size_t>(width) * static_cast<size_t>(height));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double sum = 0;
      for (int sample = 0; sample < kSubSamples * kSubSamples; ++sample) {
        const Point p = {x + (sample % kSubSamples + 0.5) / kSubSamples - 0.5,
                         y + (sample / kSubSamples + 0.5) / kSubSamples - 0.5};
        const Point onObject = apply(object.previousFromFrame, p);
        sum += object.covers(onObject) ? kObjectBrightness * object.texture.at(onObject)
                                       : scene.at(apply(previousFromFrame, p));
      }
      frame.push_back(static_cast<float>(sum / (kSubSamples * kSubSamples)));
    }
  }
  return frame;
}

struct Statistics {
  double mean;
  double deviation;
};

Statistics statisticsOf(const std::vector<float>& frame) {
  double sum = 0;
  double squares = 0;
  for (float value : frame) {
    sum += value;
    squares += static_cast<double>(value) * value;
  }
  const double mean = sum / static_cast<double>(frame.size());
  return {mean, std::sqrt(std::max(0.0, squares / static_cast<double>(frame.size()) - mean * mean))};
}

void flatten(ScenePair* pair) {
  const Statistics statistics = statisticsOf(pair->previous);
  const double gain = std::min(1.0, kFlatContrast / std::max(statistics.deviation, 1e-3));
  for (std::vector<float>* frame : {&pair->previous, &pair->current}) {
    for (float& value : *frame) value = static_cast<float>(statistics.mean + gain * (value - statistics.mean));
  }
}

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

std::vector<uint8_t> shoot(const std::vector<float>& scene, Light light, double gain, Random& random) {
  const double noise = light == Light::Clean ? 0 : light == Light::Dim ? 3 : 8;
  std::vector<uint8_t> frame;
  frame.reserve(scene.size());
  for (float value : scene) {
    const double level = gain * static_cast<double>(value) + (noise > 0 ? noise * random.gaussian() : 0);
    frame.push_back(static_cast<uint8_t>(std::clamp(level, 0.0, 255.0) + 0.5));
  }
  return frame;
}

}  // namespace

Affine inverse(const Affine& affine) {
  const double* m = affine.m;
  const double determinant = m[0] * m[4] - m[1] * m[3];
  const double a = m[4] / determinant;
  const double b = -m[1] / determinant;
  const double c = -m[3] / determinant;
  const double d = m[0] / determinant;
  return {{a, b, -a * m[2] - b * m[5], c, d, -c * m[2] - d * m[5]}};
}

double cornerError(const Affine& measured, const Affine& truth, int width, int height) {
  double squares = 0;
  for (int corner = 0; corner < 4; ++corner) {
    const Point p = {corner % 2 * (width - 1.0), corner / 2 * (height - 1.0)};
    const Point a = apply(measured, p);
    const Point b = apply(truth, p);
    squares += (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y);
  }
  return std::sqrt(squares / 4);
}

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
  int header[3] = {};  // width, height, largest sample
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
  // Each octave of sizes covers the same area: a density of radii falling with the cube, drawn by its inverse.
  const double maxRadius = 0.25 * std::min(width, height);
  const int count = static_cast<int>(0.1 * width * height / (kMinRadius * kMinRadius));
  for (int i = 0; i < count; ++i) {
    const double u = random.uniform(0, 1);
    const double least = kMinRadius / maxRadius;
    const double radius = kMinRadius / std::sqrt(1 - u * (1 - least * least));
    const Point centre = {random.uniform(0, width), random.uniform(0, height)};
    const int sides = random.below(4) == 0 ? 0 : 3 + random.below(4);
    const double angle = random.direction();
    paint(&photo, {centre, radius, sides, angle}, static_cast<float>(random.uniform(20, 230)));
  }
  for (int cell = 256; cell >= 2; cell /= 2) addValueNoise(&photo, cell, 1.5 * std::pow(cell, 0.4), random);
  for (float& value : photo.luma) value = std::clamp(value, 0.0f, 255.0f);
  return photo;
}

const char* nameOf(Motion motion) {
  switch (motion) {
    case Motion::Tremor:
      return "tremor";
    case Motion::Pan:
      return "pan";
    case Motion::Rotation:
      return "rotation";
    case Motion::Zoom:
      return "zoom";
    case Motion::LowTexture:
      return "low-texture";
    case Motion::Repetitive:
      return "repetitive";
    case Motion::Object:
      return "object";
  }
  return "";
}

const char* nameOf(Light light) {
  switch (light) {
    case Light::Clean:
      return "clean";
    case Light::Dim:
      return "dim";
    case Light::Dark:
      return "dark";
  }
  return "";
}

ScenePair renderPair(const std::vector<Photo>& photos, Motion motion, int width, int height, uint64_t seed, int index) {
  Random random = {seed, static_cast<uint64_t>(motion), static_cast<uint64_t>(index)};
  ScenePair pair = {.width = width, .height = height, .previous = {}, .current = {}, .currentFromPrevious = {}};
  pair.currentFromPrevious = drawMotion(motion, width, height, random);

  const Photo& photo = photos[static_cast<size_t>(index) % photos.size()];
  Scene scene = {.crop = drawCrop(photo, Pick::MaxTexture, width, height, random)};
  if (motion == Motion::Repetitive) {
    scene.tileSide = random.uniform(24, 64);
    scene.tile = scene.crop;
    const double x = random.uniform(0, width - scene.tileSide);
    const double y = random.uniform(0, height - scene.tileSide);
    scene.tile.origin.x += scene.tile.scale * x;
    scene.tile.origin.y += scene.tile.scale * y;
  }

  MovingObject object;
  Affine objectFromPrevious = pair.currentFromPrevious;
  if (motion == Motion::Object) {
    // Darker and less textured than the background, or the object would often be the larger part of what can be followed.
    object.texture = drawCrop(photo, Pick::MinTexture, width, height, random);
    const double edge = 0.5 * (1 - std::sqrt(kObjectArea));
    object.low = {edge * width, edge * height};
    object.high = {(1 - edge) * width, (1 - edge) * height};
    const double distance = random.uniform(4, 12);
    const double direction = random.direction();
    objectFromPrevious.m[2] += distance * std::cos(direction);
    objectFromPrevious.m[5] += distance * std::sin(direction);
  }

  pair.previous = render(scene, {}, object, width, height);
  object.previousFromFrame = inverse(objectFromPrevious);
  pair.current = render(scene, inverse(pair.currentFromPrevious), object, width, height);
  if (motion == Motion::LowTexture) flatten(&pair);
  return pair;
}

FramePair expose(const ScenePair& pair, Light light, uint64_t seed) {
  Random random = {seed, static_cast<uint64_t>(light)};
  const double gain = gainFor(light, pair.previous);
  FramePair frames = {pair.width, pair.height, shoot(pair.previous, light, gain, random), {}};
  frames.current = shoot(pair.current, light, gain, random);
  return frames;
}

StillScene drawStillScene(const Photo& photo, int width, int height, uint64_t seed) {
  Random random = {seed};
  const Crop crop = drawCrop(photo, Pick::MaxTexture, width, height, random);
  return {&photo, crop.origin.x, crop.origin.y, crop.scale};
}

std::vector<float> renderView(const StillScene& scene, const Affine& sceneFromFrame, int width, int height) {
  return render({.crop = {scene.photo, {scene.left, scene.top}, scene.scale}}, sceneFromFrame, {}, width, height);
}

double gainFor(Light light, const std::vector<float>& frame) {
  if (light == Light::Clean) return 1;
  return (light == Light::Dim ? 60 : 24) / std::max(statisticsOf(frame).mean, 1.0);
}

std::vector<uint8_t> expose(const std::vector<float>& frame, Light light, double gain, uint64_t seed) {
  Random random = {seed, static_cast<uint64_t>(light)};
  return shoot(frame, light, gain, random);
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
