#include "scenes/layers.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <utility>

#include "scenes/random.h"

namespace noxel::scenes {
namespace {

constexpr int kSubSamples = 4;  // per side of a pixel
constexpr int kHarmonics = 5;   // of a silhouette

Affine turned(double angleRad, Point about, Point shift) {
  const double c = std::cos(angleRad);
  const double s = std::sin(angleRad);
  return {{c, -s, about.x - c * about.x + s * about.y + shift.x, s, c, about.y - s * about.x - c * about.y + shift.y}};
}

// A part of a small motion.
Affine inPart(const Affine& motion, double part) {
  Affine result;
  for (size_t i = 0; i < 6; ++i) result.m[i] += part * (motion.m[i] - result.m[i]);
  return result;
}

// `first`, then `second`.
Affine after(const Affine& second, const Affine& first) {
  const double* a = second.m;
  const double* b = first.m;
  return {{a[0] * b[0] + a[1] * b[3], a[0] * b[1] + a[1] * b[4], a[0] * b[2] + a[1] * b[5] + a[2],
           a[3] * b[0] + a[4] * b[3], a[3] * b[1] + a[4] * b[4], a[3] * b[2] + a[4] * b[5] + a[5]}};
}

Point along(double direction, double distance) {
  return {distance * std::cos(direction), distance * std::sin(direction)};
}

// A layer of the previous frame, in its pixels.
struct Layer {
  enum class Outline {
    Everything,
    Skyline,  // all below an uneven line with steps
    Blob,     // an uneven disc
  };
  Outline outline = Outline::Everything;
  StillScene texture;
  double brightness = 1;
  Point centre = {};  // of a blob; y is the mean height of a skyline
  double size = 1;    // radius of a blob, unevenness of a skyline
  double waves[kHarmonics] = {};
  double phases[kHarmonics] = {};
  double stepSide = 1;
  Affine previousFromFrame;

  bool covers(Point p) const {
    if (outline == Outline::Everything) return true;
    const double angle = outline == Outline::Blob ? std::atan2(p.y - centre.y, p.x - centre.x)
                                                  : 2 * std::numbers::pi * std::floor(p.x / stepSide) * stepSide / 400;
    double uneven = 0;
    for (int i = 0; i < kHarmonics; ++i) uneven += waves[i] * std::sin((i + 1) * angle + phases[i]);
    if (outline == Outline::Skyline) return p.y > centre.y + size * uneven;
    return std::hypot(p.x - centre.x, p.y - centre.y) < size * (1 + uneven);
  }
  double at(Point p) const {
    return brightness * texture.photo->at(texture.left + texture.scale * p.x, texture.top + texture.scale * p.y);
  }
};

void drawOutline(double unevenness, Random& random, Layer* layer) {
  for (int i = 0; i < kHarmonics; ++i) {
    layer->waves[i] = random.uniform(0, unevenness) / (i + 1);
    layer->phases[i] = random.direction();
  }
  layer->stepSide = random.uniform(8, 60);
}

// The frame, and for each pixel the layer seen in all of it. Later layers are in front.
std::vector<float> render(const std::vector<Layer>& layers, int width, int height, std::vector<uint8_t>* seen) {
  std::vector<float> frame;
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  frame.reserve(pixels);
  seen->clear();
  seen->reserve(pixels);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double sum = 0;
      int first = -1;
      bool mixed = false;
      for (int sample = 0; sample < kSubSamples * kSubSamples; ++sample) {
        const Point p = {x + (sample % kSubSamples + 0.5) / kSubSamples - 0.5,
                         y + (sample / kSubSamples + 0.5) / kSubSamples - 0.5};
        int front = static_cast<int>(layers.size()) - 1;
        Point own = {};
        for (;; --front) {
          const Layer& layer = layers[static_cast<size_t>(front)];
          own = apply(layer.previousFromFrame, p);
          if (layer.covers(own)) break;
        }
        sum += layers[static_cast<size_t>(front)].at(own);
        mixed = mixed || (first >= 0 && front != first);
        first = front;
      }
      frame.push_back(static_cast<float>(sum / (kSubSamples * kSubSamples)));
      seen->push_back(mixed ? LayeredPair::kMixed : static_cast<uint8_t>(first));
    }
  }
  return frame;
}

// Motions are currentFromPrevious here, inverted when all are drawn.
std::vector<Layer> drawParallax(const std::vector<Photo>& photos, int width, int height, size_t index, Random& random,
                                std::vector<Affine>* motions) {
  const Point centre = {0.5 * width, 0.5 * height};
  const double direction = random.uniform(-0.3, 0.3) + (random.below(2) == 0 ? 0 : std::numbers::pi);
  const double roll = random.uniform(-0.002, 0.002);
  double distance = random.uniform(4, 16);
  const int nearer = 1 + random.below(2);
  std::vector<Layer> layers;
  for (int i = 0; i <= nearer; ++i) {
    Layer layer;
    layer.texture = drawStillScene(photos[(index + static_cast<size_t>(i)) % photos.size()], width, height,
                                   static_cast<uint64_t>(random.below(1 << 20)));
    if (i > 0) {
      distance += random.uniform(1, 12.0 / nearer);
      layer.outline = Layer::Outline::Skyline;
      layer.brightness = random.uniform(0.5, 1);
      layer.centre = {0, height * (i == nearer ? random.uniform(0.6, 0.85) : random.uniform(0.45, 0.6))};
      layer.size = 0.12 * height;
      drawOutline(1, random, &layer);
    }
    layers.push_back(layer);
    motions->push_back(turned(roll, centre, along(direction, distance)));
  }
  return layers;
}

std::vector<Layer> drawObjects(const std::vector<Photo>& photos, int width, int height, size_t index, Random& random,
                               std::vector<Affine>* motions) {
  const Point centre = {0.5 * width, 0.5 * height};
  const double roll = index % 3 == 0 ? 0 : random.uniform(-0.004, 0.004);
  const double distance = index % 3 == 0 ? 0 : index % 3 == 1 ? random.uniform(0, 4) : random.uniform(5, 20);
  Layer background;
  background.texture = drawStillScene(photos[index % photos.size()], width, height, static_cast<uint64_t>(index));
  std::vector<Layer> layers = {background};
  motions->push_back(turned(roll, centre, along(random.direction(), distance)));
  const int objects = 1 + random.below(3);
  for (int i = 0; i < objects; ++i) {
    Layer layer;
    layer.outline = Layer::Outline::Blob;
    layer.texture = drawStillScene(photos[(index + static_cast<size_t>(i) + 1) % photos.size()], width, height,
                                   static_cast<uint64_t>(random.below(1 << 20)));
    layer.brightness = random.uniform(0.5, 1);
    layer.size = 0.5 * 40 * std::pow(300.0 / 40, random.uniform(0, 1)) * std::min(1.0, height / 360.0);
    layer.centre = {random.uniform(0.15, 0.85) * width, random.uniform(0.2, 0.8) * height};
    drawOutline(0.3, random, &layer);
    layers.push_back(layer);
    // Its own path comes on top of the background's.
    const Affine& camera = motions->front();
    const Point at = apply(camera, layer.centre);
    const Point own = along(random.direction(), random.uniform(2, 20));
    motions->push_back(turned(roll + random.uniform(-0.02, 0.02), layer.centre,
                              {at.x - layer.centre.x + own.x, at.y - layer.centre.y + own.y}));
  }
  return layers;
}

}  // namespace

const char* nameOf(Layers layers) {
  return layers == Layers::Parallax ? "parallax" : "objects";
}

LayeredPair renderLayers(const std::vector<Photo>& photos, Layers layers, int width, int height, uint64_t seed,
                         int index, int earlier) {
  Random random = {seed, 100 + static_cast<uint64_t>(layers), static_cast<uint64_t>(index)};
  std::vector<Affine> motions;
  const auto draw = layers == Layers::Parallax ? drawParallax : drawObjects;
  std::vector<Layer> drawn = draw(photos, width, height, static_cast<size_t>(index), random, &motions);
  LayeredPair pair;
  pair.frames.width = width;
  pair.frames.height = height;
  pair.frames.previous = render(drawn, width, height, &pair.layer);
  for (int i = 0; i < earlier; ++i) {
    const double speed = random.uniform(0.8, 1.2);
    for (size_t k = 0; k < drawn.size(); ++k) {
      drawn[k].previousFromFrame = after(drawn[k].previousFromFrame, inPart(motions[k], speed));
    }
    pair.earlier.insert(pair.earlier.begin(), render(drawn, width, height, &pair.layer));
  }
  pair.frames.currentFromPrevious = motions[0];
  for (size_t i = 0; i < drawn.size(); ++i) {
    drawn[i].previousFromFrame = inverse(motions[i]);
    pair.previousFromCurrent.push_back(drawn[i].previousFromFrame);
  }
  pair.frames.current = render(drawn, width, height, &pair.layer);
  return pair;
}

}  // namespace noxel::scenes
