// The passes that shape the picture, in plain double precision, from their formulas: what the shaders are compared
// with.
//
// Images are quantised to 8 bits when stored, as render targets are. Texture coordinates run from 0 to 1 over an image
// and a warp maps those of the output pixel to those sampled.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace noxel::reference {

struct Colour {
  double r = 0, g = 0, b = 0, a = 1;

  double operator[](int channel) const { return channel == 0 ? r : channel == 1 ? g : channel == 2 ? b : a; }
  friend Colour operator+(Colour x, Colour y) { return {x.r + y.r, x.g + y.g, x.b + y.b, x.a + y.a}; }
  friend Colour operator-(Colour x, Colour y) { return {x.r - y.r, x.g - y.g, x.b - y.b, x.a - y.a}; }
  friend Colour operator*(Colour x, Colour y) { return {x.r * y.r, x.g * y.g, x.b * y.b, x.a * y.a}; }
  friend Colour operator*(Colour x, double factor) { return x * Colour{factor, factor, factor, factor}; }
};

enum class Filter { kNearest, kBilinear };

// What may be read from an RGBA texture. A luminance texture has its value in r, g and b; a chroma texture V in r and U
// in a.
class Image {
 public:
  Image(int imageWidth, int imageHeight, Filter imageFilter = Filter::kBilinear);
  Image(int imageWidth, int imageHeight, const std::vector<uint8_t>& rgba, Filter imageFilter = Filter::kBilinear);
  static Image luminance(int width, int height, const std::vector<uint8_t>& bytes);
  static Image chroma(int width, int height, const std::vector<uint8_t>& vuPairs);

  void store(int x, int y, Colour colour);  // clamped to 0..1 and rounded to a multiple of 1 / 255
  Colour texel(int x, int y) const;         // clamped to the edge
  Colour sample(double u, double v) const;
  std::vector<uint8_t> bytes() const;

  int width, height;
  Filter filter;

 private:
  std::vector<Colour> texels;
};

using Matrix = std::array<double, 16>;  // column-major
inline constexpr Matrix kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

struct Size {
  int width, height;
};
struct Point {
  double u, v;
};

struct Tone {
  double exponent = 1, gain = 1;
};

// kr_w15, kr_w8, kr_w14, kr_w17 and kr_w18 (which agree).
Image yuvToRgb(const Image& luma, const Image& chroma, const Matrix& warp, Tone tone, Size size);
Image bicubicYuvToRgb(const Image& luma, const Image& chroma, const Matrix& warp, Size size);
Image toned(const Image& picture, const Matrix& warp, Tone tone, Size size);
Image packedYuvToRgb(const Image& packedLuma, const Image& chroma, Tone tone, int lumaWidth, Size size);

// kr_w20, kr_w21.
Image ghostMask(const Image& old, const Image& current, const Matrix& warp, double threshold, Size size);
Image deghostMix(const Image& old, const Image& current, const Image& mask, const Matrix& warp, Size size);

// kr_w9 and kr_w10: several pictures, each seen under its warp, weighted.
struct Seen {
  const Image& picture;
  Matrix warp;
  double weight;
};
Image weightedMean(const std::vector<Seen>& pictures, Size size);

// One pass of kr_w19 with taps `step` texels away.
Image edgeAware(const Image& smoothed, const Image& original, double step, double blend);

// kr_w22 and kr_w24 in both directions with steps of `step` texels; kr_w23 as often as asked.
Image eroded(const Image& mask, double step, double minWeight);
Image blurred(const Image& mask, double step);
Image dilated(const Image& mask, int iterations, double minWeight);

// kr_bl1, kr_bl2.
Image bilateralSmooth(const Image& packedLuma, double factor, Size size);
Image bilateralRefine(const Image& smoothed, const Image& packedLuma, double factor, double blend, double gamma,
                      Size size);

// kr_r1; kr_r2 and kr_r3.
Image packedLumaOf(const Image& picture, Size size);
Image packedChromaOf(const Image& picture, bool vFirst, Size size);

// kr_convr1; kr_convr2 and kr_convr3. They clamp to 0..1 before the exponent: the same as clamping its result.
inline Image yuvToRgbClamped(const Image& luma, const Image& chroma, double gamma, Size size) {
  return yuvToRgb(luma, chroma, kIdentity, {gamma, 1}, size);
}
inline Image packedYuvToRgbClamped(const Image& packedLuma, const Image& chroma, double gamma, int lumaWidth,
                                   Size size) {
  return packedYuvToRgb(packedLuma, chroma, {gamma, 1}, lumaWidth, size);
}

// kr_w12, and kr_w11 with a curve of the given width; steps of one texel.
Image sharpened(const Image& picture, double strength, const Matrix& warp = kIdentity);
Image sharpenedWithContrast(const Image& picture, double strength, double curveWidth, const Matrix& warp = kIdentity);

// kr_w3; kr_w4 and kr_w6, and kr_w5 and kr_w7 with a curve, whose strength rises with the edge once and twice as fast.
Image diagonalBox(const Image& picture, Point step, Size size);
Image detailed(const Image& picture, const Image& smooth, double strength);
Image detailedWithContrast(const Image& picture, const Image& smooth, double strength, double curveWidth,
                           double edgeFactor);

}  // namespace noxel::reference
