// Packed RGB to luma and pairs of chroma and back, a row at a time. BT.601 of full range, in integers.
#include <algorithm>
#include <cassert>

#include "kernels/planes.h"

namespace noxel::kernels {
namespace {

// Shares of a colour times 65536. Rounded so that those of luma add up to 65536 and those of chroma to 0: grey stays the
// same code, without a colour.
constexpr int kBits = 16;
constexpr int kLuma[3] = {19595, 38470, 7471};           // Y = 0.299 R + 0.587 G + 0.114 B
constexpr int kBlueChroma[3] = {-11059, -21709, 32768};  // U = (B - Y) / 1.772
constexpr int kRedChroma[3] = {32768, -27439, -5329};    // V = (R - Y) / 1.402
static_assert(kLuma[0] + kLuma[1] + kLuma[2] == 1 << kBits);
static_assert(kBlueChroma[0] + kBlueChroma[1] + kBlueChroma[2] == 0);
static_assert(kRedChroma[0] + kRedChroma[1] + kRedChroma[2] == 0);

// The way back, from chroma around 0.
constexpr int kRedOfV = 91881;     // 1.402
constexpr int kBlueOfU = 116130;   // 1.772
constexpr int kGreenOfU = -22553;  // -0.114 * 1.772 / 0.587
constexpr int kGreenOfV = -46802;  // -0.299 * 1.402 / 0.587

// The rounded value of `bits` bits of fraction, clipped.
inline uint8_t code(int value, int bits) {
  return static_cast<uint8_t>(std::clamp((value + (1 << (bits - 1))) >> bits, 0, 255));
}

template <int kRed>
struct Pixel {
  explicit Pixel(const uint8_t* at) : r(at[kRed]), g(at[1]), b(at[2 - kRed]) {}
  Pixel operator+(const Pixel& other) const { return {r + other.r, g + other.g, b + other.b}; }
  int sum(const int (&shares)[3]) const { return shares[0] * r + shares[1] * g + shares[2] * b; }
  uint8_t luma() const { return static_cast<uint8_t>((sum(kLuma) + (1 << (kBits - 1))) >> kBits); }

  int r, g, b;

 private:
  Pixel(int red, int green, int blue) : r(red), g(green), b(blue) {}
};

constexpr int kFourBits = kBits + 2;  // of sums of four pixels
constexpr int kGrey = 128;

template <int kRed>
void planesOfRows(const uint8_t* upper, const uint8_t* lower, int width, uint8_t* upperLuma, uint8_t* lowerLuma,
                  uint8_t* pairs) {
  for (int x = 0; x < width; x += 2) {
    const int next = std::min(x + 1, width - 1);
    const Pixel<kRed> a(upper + 3 * x), b(upper + 3 * next), c(lower + 3 * x), d(lower + 3 * next);
    upperLuma[x] = a.luma();
    upperLuma[next] = b.luma();
    lowerLuma[x] = c.luma();
    lowerLuma[next] = d.luma();
    const Pixel<kRed> four = (a + b) + (c + d);
    pairs[x] = code(four.sum(kRedChroma) + (kGrey << kFourBits), kFourBits);
    pairs[x + 1] = code(four.sum(kBlueChroma) + (kGrey << kFourBits), kFourBits);
  }
}

constexpr int kSixteenthBits = kBits + 4;

// What chroma adds to luma in R, G and B.
struct Added {
  int r, g, b;

  // A pixel's, which lies between two pairs: four times the nearer one's and the other's mean, 3 to 1.
  Added towards(Added other) const { return {3 * r + other.r, 3 * g + other.g, 3 * b + other.b}; }
};

// From four times a pair's codes.
Added addedBy(int v, int u) {
  v -= 4 * kGrey;
  u -= 4 * kGrey;
  return {kRedOfV * v, kGreenOfU * u + kGreenOfV * v, kBlueOfU * u};
}

template <int kRed>
inline void writePixel(int luma, Added sixteenTimes, uint8_t* to) {
  const int y = luma << kSixteenthBits;
  to[kRed] = code(y + sixteenTimes.r, kSixteenthBits);
  to[1] = code(y + sixteenTimes.g, kSixteenthBits);
  to[2 - kRed] = code(y + sixteenTimes.b, kSixteenthBits);
}

// `near` and `far`: the pairs above and below this row of pixels, which count 3 to 1.
template <int kRed>
void rgbOfRow(const uint8_t* luma, const uint8_t* near, const uint8_t* far, int width, uint8_t* rgb) {
  const auto at = [&](int i) { return addedBy(3 * near[2 * i] + far[2 * i], 3 * near[2 * i + 1] + far[2 * i + 1]); };
  const int columns = (width + 1) / 2;
  Added before = at(0), here = before;
  for (int i = 0; i < columns; ++i) {
    const Added after = at(std::min(i + 1, columns - 1));
    writePixel<kRed>(luma[2 * i], here.towards(before), rgb + 6 * i);
    if (2 * i + 1 < width) writePixel<kRed>(luma[2 * i + 1], here.towards(after), rgb + 6 * i + 3);
    before = here;
    here = after;
  }
}

[[maybe_unused]] bool belong(const ConstPlane& rgb, const ConstPlane& luma, const ConstPlane& pairs) {
  return rgb.width == 3 * luma.width && rgb.height == luma.height && pairs.width == (luma.width + 1) / 2 * 2 &&
         pairs.height == (luma.height + 1) / 2;
}

}  // namespace

void planesFromRgb(const ConstPlane& rgb, RgbOrder order, const Plane& luma, const Plane& pairs) {
  assert(belong(rgb, luma, pairs));
  const auto convert = order == RgbOrder::kRgb ? planesOfRows<0> : planesOfRows<2>;
  for (int y = 0; y < luma.height; y += 2) {
    const int next = std::min(y + 1, luma.height - 1);
    convert(rgb.row(y), rgb.row(next), luma.width, luma.row(y), luma.row(next), pairs.row(y / 2));
  }
}

void rgbFromPlanes(const ConstPlane& luma, const ConstPlane& pairs, RgbOrder order, const Plane& rgb) {
  assert(belong(rgb, luma, pairs));
  const auto convert = order == RgbOrder::kRgb ? rgbOfRow<0> : rgbOfRow<2>;
  for (int y = 0; y < luma.height; ++y) {
    const int far = std::clamp(y % 2 == 0 ? y / 2 - 1 : y / 2 + 1, 0, pairs.height - 1);
    convert(luma.row(y), pairs.row(y / 2), pairs.row(far), luma.width, rgb.row(y));
  }
}

}  // namespace noxel::kernels
