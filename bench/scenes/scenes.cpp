#include "scenes/scenes.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>

#include "scenes/random.h"

namespace noxel::scenes {
namespace {

constexpr int kSubSamples = 4;     // per side of a pixel
constexpr double kMargin = 48;     // frame pixels around a crop: the max pan and tremor
constexpr double kMinScale = 2.5;  // photo pixels per frame pixel, if the photo has enough
constexpr double kMaxScale = 3.5;
constexpr double kObjectBrightness = 0.6;  // of its photo
constexpr int kCropCandidates = 8;
constexpr double kFlatContrast = 10;    // standard deviation in levels
constexpr double kTileShare = 0.85;     // of the repetitive texture; the rest is the photo
constexpr double kObjectArea = 0.4;     // of the frame
constexpr double kTremorPixels = 4;     // max shift
constexpr double kTremorRoll = 0.5;     // degrees
constexpr double kTremorZoom = 0.003;   // relative
constexpr double kAccompanying = 0.25;  // share of the tremor that accompanies another motion

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

// The part of a photo in the frame: frame pixel p shows photo point origin + scale * p.
struct Crop {
  const Photo* photo;
  Point origin;
  double scale;

  double at(Point p) const { return photo->at(origin.x + scale * p.x, origin.y + scale * p.y); }
};

// Mean change over one frame pixel, relative to the brightness, from a sparse sample.
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

// The best of a few random crops. Backgrounds take the most textured, as a camera points at something while much of a
// large photo is sky or out of focus. Several photo pixels per frame pixel hide the photo's softness; a photo too small
// for that is shown whole.
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

Point apply(const Affine& affine, Point p) {
  const double* m = affine.m;
  return {m[0] * p.x + m[1] * p.y + m[2], m[3] * p.x + m[4] * p.y + m[5]};
}

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
    // Darker and less textured than the background, which would otherwise often offer less to track than the object.
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

}  // namespace noxel::scenes
