#include "reference/passes.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace noxel::reference {

namespace {

Colour mix(Colour x, Colour y, double share) {
  return x * (1 - share) + y * share;
}

template <typename Function>
Colour each(Colour x, const Function& function) {
  return {function(x.r), function(x.g), function(x.b), function(x.a)};
}

}  // namespace

Image::Image(int imageWidth, int imageHeight, Filter imageFilter)
    : width(imageWidth), height(imageHeight), filter(imageFilter), texels(static_cast<size_t>(width * height)) {}

Image::Image(int imageWidth, int imageHeight, const std::vector<uint8_t>& rgba, Filter imageFilter)
    : Image(imageWidth, imageHeight, imageFilter) {
  for (size_t i = 0; i < texels.size(); ++i)
    texels[i] = {rgba[4 * i] / 255.0, rgba[4 * i + 1] / 255.0, rgba[4 * i + 2] / 255.0, rgba[4 * i + 3] / 255.0};
}

Image Image::luminance(int width, int height, const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> rgba;
  for (const uint8_t value : bytes) rgba.insert(rgba.end(), {value, value, value, 255});
  return {width, height, rgba};
}

Image Image::chroma(int width, int height, const std::vector<uint8_t>& vuPairs) {
  std::vector<uint8_t> rgba;
  for (size_t i = 0; i < vuPairs.size(); i += 2)
    rgba.insert(rgba.end(), {vuPairs[i], vuPairs[i], vuPairs[i], vuPairs[i + 1]});
  return {width, height, rgba};
}

void Image::store(int x, int y, Colour colour) {
  texels[static_cast<size_t>(y * width + x)] =
      each(colour, [](double value) { return std::round(std::clamp(value, 0.0, 1.0) * 255) / 255; });
}

Colour Image::texel(int x, int y) const {
  return texels[static_cast<size_t>(std::clamp(y, 0, height - 1) * width + std::clamp(x, 0, width - 1))];
}

Colour Image::sample(double u, double v) const {
  if (filter == Filter::kNearest) {
    return texel(static_cast<int>(std::floor(u * width)), static_cast<int>(std::floor(v * height)));
  }
  const double x = u * width - 0.5, y = v * height - 0.5;
  const int left = static_cast<int>(std::floor(x)), top = static_cast<int>(std::floor(y));
  return mix(mix(texel(left, top), texel(left + 1, top), x - left),
             mix(texel(left, top + 1), texel(left + 1, top + 1), x - left), y - top);
}

std::vector<uint8_t> Image::bytes() const {
  std::vector<uint8_t> rgba;
  for (const Colour& colour : texels) {
    for (int c = 0; c < 4; ++c) rgba.push_back(static_cast<uint8_t>(std::lround(colour[c] * 255)));
  }
  return rgba;
}

namespace {

// Evaluates colour(point) at the centre of every pixel.
template <typename Shade>
Image render(Size size, const Shade& shade, Filter filter = Filter::kBilinear) {
  Image image(size.width, size.height, filter);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x)
      image.store(x, y, shade(Point{(x + 0.5) / size.width, (y + 0.5) / size.height}));
  }
  return image;
}

template <typename Shade>
Image renderPacked(Size size, const Shade& shade) {
  return render(size, shade, Filter::kNearest);
}

// The quad has depth 0, half-way through the depth range: the third coordinate is 0.5.
Point warped(const Matrix& m, Point p) {
  return {m[0] * p.u + m[4] * p.v + m[8] * 0.5 + m[12], m[1] * p.u + m[5] * p.v + m[9] * 0.5 + m[13]};
}

Colour sampleAt(const Image& image, Point p) {
  return image.sample(p.u, p.v);
}

Colour sampleBeside(const Image& image, Point p, double texelsRight, double texelsDown) {
  return image.sample(p.u + texelsRight / image.width, p.v + texelsDown / image.height);
}

Colour opaque(Colour colour) {
  colour.a = 1;
  return colour;
}

Colour grey(double value) {
  return {value, value, value, 1};
}

// Full-range BT.601.
Colour rgbOf(double y, Colour chroma) {
  const double v = chroma.r - 0.5, u = chroma.a - 0.5;
  return {y + 1.402 * v, y - 0.34414 * u - 0.71414 * v, y + 1.772 * u, 1};
}

double lumaOf(Colour c) {
  return 0.299 * c.r + 0.587 * c.g + 0.114 * c.b;
}

template <typename Function>
Colour eachButAlpha(Colour x, const Function& function) {
  return {function(x.r), function(x.g), function(x.b), x.a};
}

Colour applyTone(Colour colour, Tone tone) {
  return eachButAlpha(colour, [tone](double x) { return std::pow(std::max(x * tone.gain, 0.0), tone.exponent); });
}

// A luma sample by its column: sample k of a row is channel k mod 4 of texel k / 4.
double unpacked(const Image& packedLuma, Point p, int lumaWidth) {
  return sampleAt(packedLuma, p)[static_cast<int>(p.u * lumaWidth) % 4];
}

// Uniform cubic B-spline, with its sixths written to three digits.
std::array<double, 4> splineWeights(double f) {
  const double before = -0.167 * f * f * f + 0.5 * f * f - 0.5 * f + 0.167;
  const double here = 0.5 * f * f * f - f * f + 0.667;
  const double after = 0.167 * f * f * f;
  return {before, here, 1 - before - here - after, after};
}

double cubicLuma(const Image& luma, Point p) {
  const double x = p.u * luma.width - 0.5, y = p.v * luma.height - 0.5;
  const int left = static_cast<int>(std::floor(x)), top = static_cast<int>(std::floor(y));
  const auto across = splineWeights(x - left), down = splineWeights(y - top);
  double sum = 0;
  for (size_t i = 0; i < 16; ++i) {
    const int column = static_cast<int>(i % 4), row = static_cast<int>(i / 4);
    sum += across[i % 4] * down[i / 4] * luma.texel(left - 1 + column, top - 1 + row).r;
  }
  return sum;
}

// Logistic of the given width, shifted and scaled to keep 0 and 1.
double contrastCurve(double x, double width) {
  const auto logistic = [width](double t) { return 1 / (1 + std::exp((0.5 - t) / width)); };
  return (logistic(x) - logistic(0)) / (logistic(1) - logistic(0));
}

// Width 0: no curve.
Colour contrasted(Colour colour, double width) {
  if (width == 0) return colour;
  return eachButAlpha(colour, [width](double x) { return contrastCurve(x, width); });
}

}  // namespace

Image yuvToRgb(const Image& luma, const Image& chroma, const Matrix& warp, Tone tone, Size size) {
  return render(size, [&](Point p) {
    const Point at = warped(warp, p);
    return applyTone(rgbOf(sampleAt(luma, at).r, sampleAt(chroma, at)), tone);
  });
}

Image bicubicYuvToRgb(const Image& luma, const Image& chroma, const Matrix& warp, Size size) {
  return render(size, [&](Point p) {
    const Point at = warped(warp, p);
    return rgbOf(cubicLuma(luma, at), sampleAt(chroma, at));
  });
}

Image toned(const Image& picture, const Matrix& warp, Tone tone, Size size) {
  return render(size, [&](Point p) { return applyTone(sampleAt(picture, warped(warp, p)), tone); });
}

Image packedYuvToRgb(const Image& packedLuma, const Image& chroma, Tone tone, int lumaWidth, Size size) {
  return render(
      size, [&](Point p) { return applyTone(rgbOf(unpacked(packedLuma, p, lumaWidth), sampleAt(chroma, p)), tone); });
}

Image ghostMask(const Image& old, const Image& current, const Matrix& warp, double threshold, Size size) {
  return render(size, [&](Point p) {
    const Colour d = each(sampleAt(old, warped(warp, p)) - sampleAt(current, p), [](double x) { return std::abs(x); });
    return grey(d.r + d.g + d.b >= threshold ? 1 : 0);
  });
}

Image deghostMix(const Image& old, const Image& current, const Image& mask, const Matrix& warp, Size size) {
  return render(size, [&](Point p) {
    return opaque(mix(sampleAt(old, warped(warp, p)), sampleAt(current, p), sampleAt(mask, p).r));
  });
}

Image weightedMean(const std::vector<Seen>& pictures, Size size) {
  return render(size, [&](Point p) {
    Colour sum = {0, 0, 0, 0};
    for (const Seen& seen : pictures) sum = sum + sampleAt(seen.picture, warped(seen.warp, p)) * seen.weight;
    return opaque(sum);
  });
}

Image edgeAware(const Image& smoothed, const Image& original, double step, double blend) {
  const double s = step;
  const double offsets[4][2] = {{s, s}, {-s, s * s}, {s, -s * s * s}, {-s, -s * s * s * s}};
  return render({original.width, original.height}, [&](Point p) {
    const Colour colour = sampleAt(original, p);
    const auto distance = [&](Colour c) { return std::hypot(c.r - colour.r, c.g - colour.g, c.b - colour.b); };
    const Colour centre = sampleAt(smoothed, p);
    const double d = distance(centre);
    double sum = 1.5 * std::max(0.01, std::max(0.0, 0.5 - 10 * d) + std::max(0.0, 0.3 - d));
    Colour value = centre * sum;
    for (const auto& [right, down] : offsets) {
      const Colour tap = sampleBeside(smoothed, p, right, down);
      value = value + tap * distance(tap);
      sum += distance(tap);
    }
    return opaque(mix(colour, value * (1 / sum), blend));
  });
}

namespace {

template <typename Tap>
Image bothWays(const Image& image, double step, const Tap& tap) {
  const Size size = {image.width, image.height};
  const Image across = render(size, [&](Point p) {
    return grey(tap([&](double steps) { return sampleBeside(image, p, steps * step, 0).r; }));
  });
  return render(size, [&](Point p) {
    return grey(tap([&](double steps) { return sampleBeside(across, p, 0, steps * step).r; }));
  });
}

}  // namespace

Image eroded(const Image& mask, double step, double minWeight) {
  return bothWays(mask, step, [minWeight](const auto& at) {
    const double least = std::min({at(-1), at(0), at(1)});
    return least < 0.95 ? minWeight : least;
  });
}

Image blurred(const Image& mask, double step) {
  return bothWays(mask, step, [](const auto& at) {
    return 0.1538 * (at(-5.5) + at(-3.5) + at(-1.5) + at(1.5) + at(3.5) + at(5.5)) + 0.0769 * at(0);
  });
}

Image dilated(const Image& mask, int iterations, double minWeight) {
  const double blendFactor = minWeight >= 0.5 ? 1 : 1 - 0.5 * std::min(0.5 - minWeight, 0.4);
  // Reach of the four corner taps to the left and above, and to the right and below.
  const double reach[][2] = {{-1.5, 0.5}, {-2.5, 2.5}, {-5.5, 5.5}, {-11.5, 11.5}};
  Image image = mask;
  for (int k = 0; k < iterations; ++k) {
    const auto [low, high] = reach[k];
    image = render({mask.width, mask.height}, [&, least = low, most = high](Point p) {
      const double value = std::max({sampleBeside(image, p, least, least).r, sampleBeside(image, p, most, least).r,
                                     sampleBeside(image, p, least, most).r, sampleBeside(image, p, most, most).r});
      return grey(value > minWeight + 0.01 ? blendFactor : value);
    });
  }
  return image;
}

namespace {

// Weighted mean, channel by channel, with weights that fall with the distance from a reference value.
struct RangeMean {
  Colour reference;
  double factor;
  double slopes[4];  // limit and slope of the first part, scale and slope of the second
  Colour sum;
  Colour weights = {1, 1, 1, 1};

  void add(Colour tap, double times) {
    const Colour distance = each(tap - reference, [this](double d) { return std::abs(d) * factor; });
    const Colour weight = each(distance, [this](double r) {
      return 1 - slopes[1] * std::min(r, slopes[0]) - slopes[3] * std::min(r * slopes[2], 1.0);
    });
    sum = sum + tap * weight * times;
    weights = weights + weight * times;
  }

  Colour mean() const { return {sum.r / weights.r, sum.g / weights.g, sum.b / weights.b, sum.a / weights.a}; }
};

}  // namespace

// Neighbours are one texel away in x and four rows in y; the centre lies a quarter of a row below the pixel's.
Image bilateralSmooth(const Image& packedLuma, double factor, Size size) {
  return renderPacked(size, [&](Point p) {
    const Colour centre = sampleBeside(packedLuma, p, 0, 0.25);
    RangeMean range = {centre, factor, {0.8333, 0.6, 0.3, 0.5}, centre};
    const int taps[7][2] = {{0, -1}, {1, -1}, {-1, 0}, {0, 0}, {1, 0}, {-1, 1}, {0, 1}};
    for (const auto& [dx, dy] : taps) range.add(sampleBeside(packedLuma, p, dx, 4 * dy + 0.25), 1);
    return range.mean();
  });
}

Image bilateralRefine(const Image& smoothed, const Image& packedLuma, double factor, double blend, double gamma,
                      Size size) {
  return renderPacked(size, [&](Point p) {
    const Colour centre = sampleAt(packedLuma, p);
    RangeMean range = {centre, factor, {0.6667, 1.125, 0.375, 0.25}, centre};
    range.add(sampleAt(smoothed, p), 2);
    for (const auto& [dx, dy] : {std::pair{-1.0, -4.0}, {-1.0, 4.0}, {1.0, -4.0}, {1.0, 4.0}})
      range.add(smoothed.sample(p.u + dx / packedLuma.width, p.v + dy / smoothed.height), 1);
    return each(mix(centre, range.mean(), blend), [gamma](double x) { return std::pow(std::max(x, 0.0), gamma); });
  });
}

Image packedLumaOf(const Image& picture, Size size) {
  return renderPacked(size, [&](Point p) {
    const auto luma = [&](double pixels) { return lumaOf(picture.sample(p.u + pixels * 0.25 / size.width, p.v)); };
    return Colour{luma(-1.5), luma(-0.5), luma(0.5), luma(1.5)};
  });
}

Image packedChromaOf(const Image& picture, bool vFirst, Size size) {
  return renderPacked(size, [&](Point p) {
    const Colour first = sampleAt(picture, p), second = picture.sample(p.u + 0.25 / size.width, p.v);
    const auto v = [](Colour c) { return 0.5 + (c.r - lumaOf(c)) / 1.402; };
    const auto u = [](Colour c) { return 0.5 + (c.b - lumaOf(c)) / 1.772; };
    return vFirst ? Colour{v(first), u(first), v(second), u(second)} : Colour{u(first), v(first), u(second), v(second)};
  });
}

Image sharpened(const Image& picture, double strength, const Matrix& warp) {
  return sharpenedWithContrast(picture, strength, 0, warp);
}

// Centre against the mean of its eight neighbours. `strength` is in hundredths of 4.5 beyond the factor 1.5.
Image sharpenedWithContrast(const Image& picture, double strength, double curveWidth, const Matrix& warp) {
  const double gain = 1.5 + 0.045 * strength;
  return render({picture.width, picture.height}, [&](Point output) {
    const Point p = warped(warp, output);
    Colour around = {0, 0, 0, 0};
    for (int k = 0; k < 9; ++k) {
      if (k != 4) around = around + sampleBeside(picture, p, k % 3 - 1, k / 3 - 1);
    }
    return contrasted(sampleAt(picture, p) * gain - around * ((gain - 1) / 8), curveWidth);
  });
}

Image diagonalBox(const Image& picture, Point step, Size size) {
  return render(size, [&](Point p) {
    const Colour sum = picture.sample(p.u - step.u, p.v - step.v) + picture.sample(p.u + step.u, p.v - step.v) +
                       picture.sample(p.u - step.u, p.v + step.v) + picture.sample(p.u + step.u, p.v + step.v);
    return opaque(sum * 0.25);
  });
}

Image detailed(const Image& picture, const Image& smooth, double strength) {
  return detailedWithContrast(picture, smooth, strength, 0, 2);
}

Image detailedWithContrast(const Image& picture, const Image& smooth, double strength, double curveWidth,
                           double edgeFactor) {
  return render({picture.width, picture.height}, [&](Point p) {
    const Colour centre = sampleAt(picture, p), d = centre - sampleAt(smooth, p);
    const double edge = std::min(0.5, edgeFactor * (std::abs(d.r) + std::abs(d.g) + std::abs(d.b)));
    return contrasted(opaque(centre + d * ((0.6 + edge) * strength)), curveWidth);
  });
}

}  // namespace noxel::reference
