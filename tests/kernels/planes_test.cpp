#include "kernels/planes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

#include "kernels/row_kernels.h"
#include "lent_threads.h"
#include "support/picture.h"

namespace noxel {
namespace {

using Bytes = std::vector<uint8_t>;
using kernels::ConstPlane;
using kernels::Gauss;
using kernels::packed;

struct Size {
  int width, height;
  size_t area() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
};

// One pixel, one line, odd, just below and above a vector's 16 bytes, larger than any filter, wider than a strip.
constexpr Size kSizes[] = {{1, 1},   {1, 9},   {7, 1},   {4, 2},   {3, 2},   {3, 5},   {17, 5},
                           {17, 15}, {31, 18}, {33, 31}, {65, 33}, {66, 49}, {1030, 5}};

// A plane's memory, with padding between the rows, at an odd address: no kernel may assume alignment. A target has
// guard bytes around it to detect stray writes; a source ends with its last pixel, so that an address sanitizer detects
// reads beyond it. Guards have distinct values, so that a copied guard shows.
class Sheet {
 public:
  static Sheet target(Size size, const Bytes& content = {}) { return Sheet(size, content, 33); }
  static Sheet source(Size size, const Bytes& content) { return Sheet(size, content, 1); }

  kernels::Plane plane() { return {bytes_.data() + guard_, size_.width, size_.height, size_.width + kPadding}; }

  // Expects the guards to be intact.
  Bytes content() {
    Bytes pixels, outside = bytes_;
    for (int y = size_.height - 1; y >= 0; --y) {
      const auto row = outside.begin() + (plane().row(y) - bytes_.data());
      pixels.insert(pixels.begin(), row, row + size_.width);
      outside.erase(row, row + size_.width);
    }
    EXPECT_EQ(outside, Bytes(outside.size(), mark_));
    return pixels;
  }

 private:
  static constexpr int kPadding = 5;

  Sheet(Size size, const Bytes& content, size_t guard) : size_(size), guard_(guard), mark_(++lastMark_) {
    const size_t rows = static_cast<size_t>(size_.height);
    const size_t inside = size_.area() == 0 ? 0 : size_.area() + (rows - 1) * kPadding;
    bytes_.assign(inside + guard_ + (guard_ > 1 ? guard_ : 0), mark_);
    for (int y = 0; y < size_.height && !content.empty(); ++y) {
      std::copy_n(content.begin() + static_cast<ptrdiff_t>(y) * size_.width, size_.width, plane().row(y));
    }
  }

  static inline uint8_t lastMark_ = 0;
  Size size_;
  size_t guard_;
  uint8_t mark_;
  Bytes bytes_;
};

// Runs `test` with the plain kernels, then with the vector kernels.
void onEachPath(const std::function<void()>& test) {
  for (const char* path : {"plain", "vectors"}) {
    SCOPED_TRACE(path);
    setenv("NOXEL_KERNELS", path, 1);
    kernels::rereadKernelChoice();
    test();
  }
  unsetenv("NOXEL_KERNELS");
  kernels::rereadKernelChoice();
}

void onEachPathAndSize(const std::function<void(Size)>& test) {
  onEachPath([&] {
    for (const Size size : kSizes) {
      SCOPED_TRACE(testing::Message() << size.width << " x " << size.height);
      test(size);
    }
  });
}

struct Image {
  Size size;
  Bytes bytes;
  int at(int x, int y) const {  // edge pixels repeated
    return bytes[static_cast<size_t>(std::clamp(y, 0, size.height - 1) * size.width +
                                     std::clamp(x, 0, size.width - 1))];
  }
};

// Weighted mean with across[i] * down[j], at offsets from `first` on, rounded half up.
Image filtered(const Image& source, const std::vector<int>& across, const std::vector<int>& down, int firstX,
               int firstY) {
  Image result = {source.size, {}};
  for (int y = firstY; y < source.size.height + firstY; ++y) {
    for (int x = firstX; x < source.size.width + firstX; ++x) {
      double sum = 0, weight = 0;
      for (size_t k = 0; k < across.size() * down.size(); ++k) {
        const size_t column = k % across.size(), row = k / across.size();
        const int product = across[column] * down[row];
        sum += product * source.at(x + static_cast<int>(column), y + static_cast<int>(row));
        weight += product;
      }
      result.bytes.push_back(static_cast<uint8_t>(std::floor(sum / weight + 0.5)));
    }
  }
  return result;
}

Image boxOfSixteen(const Image& source, int first) {
  return filtered(source, {1, 1, 1, 1}, {1, 1, 1, 1}, first, first);
}

Image gaussian(const Image& source, Gauss taps) {
  return taps == Gauss::kThree ? filtered(source, {1, 2, 1}, {1, 2, 1}, -1, -1)
                               : filtered(source, {1, 4, 6, 4, 1}, {1, 4, 6, 4, 1}, -2, -2);
}

TEST(KernelChoice, PlainOnlyOnRequest) {
  const kernels::RowKernels* taken[2] = {};
  int path = 0;
  onEachPath([&] { taken[path++] = &kernels::rowKernels(); });
  EXPECT_EQ(taken[0], &kernels::kPlainRows);
#if defined(__SSE2__) || defined(__ARM_NEON)
  EXPECT_NE(taken[1], &kernels::kPlainRows);
#endif
}

TEST(Interleave, PairsAndTakesApartEveryLength) {
  onEachPath([] {
    // Around multiples of 16 a vector loop hands over to its tail.
    for (const int count : {0, 1, 15, 16, 17, 31, 32, 33, 1000}) {
      SCOPED_TRACE(count);
      const Size size = {count, 3}, doubled = {2 * count, 3};
      const Bytes first = noisyBytes(size.area(), 1), second = noisyBytes(size.area(), 2);
      Bytes expected;
      for (size_t i = 0; i < size.area(); ++i) expected.insert(expected.end(), {first[i], second[i]});

      Sheet pairs = Sheet::target(doubled);
      kernels::interleave(Sheet::source(size, first).plane(), Sheet::source(size, second).plane(), pairs.plane());
      EXPECT_EQ(pairs.content(), expected);

      Sheet firstBack = Sheet::target(size), secondBack = Sheet::target(size);
      kernels::deinterleave(Sheet::source(doubled, expected).plane(), firstBack.plane(), secondBack.plane());
      EXPECT_EQ(firstBack.content(), first);
      EXPECT_EQ(secondBack.content(), second);
    }
  });
}

TEST(MapCodes, IsTheRoundedLineOfItsMapAlsoInPlace) {
  onEachPath([] {
    // 16..235 to 0..255 and back, as frames of limited range are taken and given.
    const kernels::CodeMap toFull = {16, 219, 0, true, 10773, 128}, toLimited = {0, 255, 16, false, 56283, 128};
    const Size size = {256, 3};
    Bytes codes(size.area()), full, limited;
    for (size_t i = 0; i < codes.size(); ++i) codes[i] = static_cast<uint8_t>(i);
    for (const uint8_t code : codes) {
      full.push_back(static_cast<uint8_t>(std::clamp(std::floor((code - 16) * 255 / 219.0 + 0.5), 0.0, 255.0)));
      limited.push_back(static_cast<uint8_t>(std::floor(code * 219 / 255.0 + 16.5)));
    }
    Sheet mapped = Sheet::target(size), inPlace = Sheet::target(size, codes);
    kernels::mapCodes(Sheet::source(size, codes).plane(), toFull, mapped.plane());
    EXPECT_EQ(mapped.content(), full);
    kernels::mapCodes(inPlace.plane(), toLimited, inPlace.plane());
    EXPECT_EQ(inPlace.content(), limited);
  });
}

TEST(SwapPairs, ChangesPlacesWithinEachPairAlsoInPlace) {
  onEachPathAndSize([](Size half) {
    const Size size = {2 * half.width, half.height};
    const Bytes pairs = noisyBytes(size.area(), 12);
    Bytes swapped = pairs;
    for (size_t i = 0; i < size.area(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    Sheet actual = Sheet::target(size), inPlace = Sheet::target(size, pairs);
    kernels::swapPairs(Sheet::source(size, pairs).plane(), actual.plane());
    EXPECT_EQ(actual.content(), swapped);
    kernels::swapPairs(inPlace.plane(), inPlace.plane());
    EXPECT_EQ(inPlace.content(), swapped);
  });
}

// BT.601 of full range, before rounding.
struct ExactPlanes {
  explicit ExactPlanes(const Image& rgb) : width(rgb.size.width / 3), height(rgb.size.height) {
    const auto pixel = [&](int x, int y, int channel) {
      return rgb.at(3 * std::min(x, width - 1) + channel, std::min(y, height - 1));
    };
    const auto lumaAt = [&](int x, int y) {
      return 0.299 * pixel(x, y, 0) + 0.587 * pixel(x, y, 1) + 0.114 * pixel(x, y, 2);
    };
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) luma.push_back(lumaAt(x, y));
    }
    for (int y = 0; y < height; y += 2) {
      for (int x = 0; x < width; x += 2) {
        double v = 128, u = 128;
        for (int i = 0; i < 4; ++i) {
          const int column = x + i % 2, row = y + i / 2;
          v += (pixel(column, row, 0) - lumaAt(column, row)) / 1.402 / 4;
          u += (pixel(column, row, 2) - lumaAt(column, row)) / 1.772 / 4;
        }
        pairs.insert(pairs.end(), {v, u});
      }
    }
  }
  int width, height;
  std::vector<double> luma, pairs;
};

// The same way back, pairs interpolated between the middles of 2 x 2 pixels.
std::vector<double> exactRgb(const Image& luma, const Image& pairs) {
  const int columns = pairs.size.width / 2;
  const auto component = [&](double x, double y, int index) {
    const double column = (x - 0.5) / 2, row = (y - 0.5) / 2;
    const int left = static_cast<int>(std::floor(column)), upper = static_cast<int>(std::floor(row));
    double sum = -128;
    for (int i = 0; i < 4; ++i) {
      const double across = i % 2 == 0 ? left + 1 - column : column - left;
      const double down = i / 2 == 0 ? upper + 1 - row : row - upper;
      sum += across * down * pairs.at(2 * std::clamp(left + i % 2, 0, columns - 1) + index, upper + i / 2);
    }
    return sum;
  };
  std::vector<double> rgb;
  for (int y = 0; y < luma.size.height; ++y) {
    for (int x = 0; x < luma.size.width; ++x) {
      const double v = component(x, y, 0), u = component(x, y, 1);
      const double r = luma.at(x, y) + 1.402 * v, b = luma.at(x, y) + 1.772 * u;
      rgb.insert(rgb.end(), {r, (luma.at(x, y) - 0.299 * r - 0.114 * b) / 0.587, b});
    }
  }
  return rgb;
}

double worstError(const Bytes& codes, const std::vector<double>& exact) {
  EXPECT_EQ(codes.size(), exact.size());
  double worst = 0;
  for (size_t i = 0; i < exact.size(); ++i)
    worst = std::max(worst, std::abs(codes[i] - std::clamp(exact[i], 0.0, 255.0)));
  return worst;
}

// Half a code of rounding; the shares of 16 bits are off by 1 / 65536 at most, 255 * 3 / 65536 together.
constexpr double kRoundedOnce = 0.512;

Bytes swappedRgb(Bytes rgb) {
  for (size_t i = 0; i + 2 < rgb.size(); i += 3) std::swap(rgb[i], rgb[i + 2]);
  return rgb;
}

TEST(PackedRgb, IsTheRoundedFormulaOfEverySizeBothWays) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(testing::Message() << size.width << " x " << size.height);
    const Size wide = {3 * size.width, size.height};
    const Size ofPairs = {(size.width + 1) / 2 * 2, (size.height + 1) / 2};
    const Image rgb = {wide, noisyBytes(wide.area(), 21)};
    const ExactPlanes exact(rgb);
    Image luma = {size, {}}, pairs = {ofPairs, {}};
    for (const auto order : {kernels::RgbOrder::kBgr, kernels::RgbOrder::kRgb}) {
      const bool swapped = order == kernels::RgbOrder::kBgr;
      Sheet lumaOut = Sheet::target(size), pairsOut = Sheet::target(ofPairs), rgbOut = Sheet::target(wide);
      Sheet given = Sheet::source(wide, swapped ? swappedRgb(rgb.bytes) : rgb.bytes);
      kernels::planesFromRgb(given.plane(), order, lumaOut.plane(), pairsOut.plane());
      luma.bytes = lumaOut.content();
      pairs.bytes = pairsOut.content();
      EXPECT_LE(worstError(luma.bytes, exact.luma), kRoundedOnce);
      EXPECT_LE(worstError(pairs.bytes, exact.pairs), kRoundedOnce);

      // Of bytes that are no colours, too: a picture that was enhanced may leave RGB.
      luma.bytes = noisyBytes(size.area(), 22);
      pairs.bytes = noisyBytes(ofPairs.area(), 23);
      kernels::rgbFromPlanes(Sheet::source(size, luma.bytes).plane(), Sheet::source(ofPairs, pairs.bytes).plane(),
                             order, rgbOut.plane());
      const Bytes back = rgbOut.content();
      EXPECT_LE(worstError(swapped ? swappedRgb(back) : back, exactRgb(luma, pairs)), kRoundedOnce);
    }
  }
}

TEST(PackedRgb, ColoursComeBackWithinOneCodeAndGreysAsTheyWere) {
  constexpr int kLevels = 86;  // every third one of red, green and blue
  const auto level = [](int i) { return static_cast<uint8_t>(i % kLevels * 3); };
  double worst = 0;
  int worstBack = 0, worstGrey = 0;
  for (int i = 0; i < kLevels * kLevels * kLevels; ++i) {  // each a picture of one pixel
    const uint8_t rgb[3] = {level(i), level(i / kLevels), level(i / kLevels / kLevels)};
    uint8_t luma = 0, pair[2] = {}, back[3] = {};
    kernels::planesFromRgb(packed(rgb, 3, 1), kernels::RgbOrder::kRgb, packed(&luma, 1, 1), packed(pair, 2, 1));
    kernels::rgbFromPlanes(packed(&luma, 1, 1), packed(pair, 2, 1), kernels::RgbOrder::kRgb, packed(back, 3, 1));
    const double exact = 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2];
    const double v = std::min(128 + (rgb[0] - exact) / 1.402, 255.0),
                 u = std::min(128 + (rgb[2] - exact) / 1.772, 255.0);
    worst = std::max({worst, std::abs(luma - exact), std::abs(pair[0] - v), std::abs(pair[1] - u)});
    int& worstOfKind = rgb[0] == rgb[1] && rgb[1] == rgb[2] ? worstGrey : worstBack;
    for (int k = 0; k < 3; ++k) worstOfKind = std::max(worstOfKind, std::abs(back[k] - rgb[k]));
  }
  EXPECT_LE(worst, kRoundedOnce);
  // Half a code of luma, half a code of chroma by 1.772, and a rounding: less than two.
  EXPECT_EQ(worstBack, 1);
  EXPECT_EQ(worstGrey, 0);
}

TEST(Downscale, AveragesBlocksAndDropsTheOddRowAndColumn) {
  onEachPathAndSize([](Size size) {
    const Image source = {size, noisyBytes(size.area(), 3)};
    const Size half = {size.width / 2, size.height / 2};
    Bytes ofFour, ofDiagonal;
    for (int y = 0; y < half.height; ++y) {
      for (int x = 0; x < half.width; ++x) {
        const int diagonal = source.at(2 * x, 2 * y) + source.at(2 * x + 1, 2 * y + 1);
        const int sum = diagonal + source.at(2 * x + 1, 2 * y) + source.at(2 * x, 2 * y + 1);
        ofFour.push_back(static_cast<uint8_t>(std::floor(sum / 4.0 + 0.5)));
        ofDiagonal.push_back(static_cast<uint8_t>(std::floor(diagonal / 2.0 + 0.5)));
      }
    }
    Sheet from = Sheet::source(size, source.bytes), actual = Sheet::target(half);
    kernels::downscaleByTwo(from.plane(), actual.plane());
    EXPECT_EQ(actual.content(), ofFour);
    kernels::downscaleByTwoDiagonal(from.plane(), actual.plane());
    EXPECT_EQ(actual.content(), ofDiagonal);
  });
}

TEST(SmoothTwice, IsTwoBoxesOfSixteen) {
  onEachPathAndSize([](Size size) {
    const Image source = {size, noisyBytes(size.area(), 4)};
    Sheet image = Sheet::target(size, source.bytes);
    Bytes scratch(size.area());
    kernels::smoothTwice(image.plane(), scratch.data());
    EXPECT_EQ(image.content(), boxOfSixteen(boxOfSixteen(source, -2), -1).bytes);
  });
}

TEST(BoxAndGauss, AreWeightedMeansWithTheEdgeRepeated) {
  onEachPathAndSize([](Size size) {
    Image source = {size, noisyBytes(size.area(), 7)};
    std::fill_n(source.bytes.begin(), size.area() / 2, uint8_t{255});  // 255 * 256 + 128: the max sum
    Sheet from = Sheet::source(size, source.bytes), actual = Sheet::target(size);
    for (const int first : {-3, 0}) {  // the extremes
      kernels::boxFour(from.plane(), first, actual.plane());
      EXPECT_EQ(actual.content(), boxOfSixteen(source, first).bytes) << "box from " << first;
    }
    for (const Gauss taps : {Gauss::kThree, Gauss::kFive}) {
      kernels::gauss(from.plane(), taps, actual.plane());
      EXPECT_EQ(actual.content(), gaussian(source, taps).bytes) << (taps == Gauss::kThree ? "3 taps" : "5 taps");
    }
  });
}

TEST(Sharpen, AddsTheDifferenceFromTheGaussAndSaturates) {
  onEachPathAndSize([](Size size) {
    // With black and white pixels: the max differences, of both signs.
    Image source = {size, noisyBytes(size.area(), 8)};
    for (size_t i = 0; i < source.bytes.size(); i += 3) source.bytes[i] = source.bytes[i] < 128 ? 0 : 255;
    Sheet from = Sheet::source(size, source.bytes), actual = Sheet::target(size);
    for (const Gauss taps : {Gauss::kThree, Gauss::kFive}) {
      const Image means = gaussian(source, taps);
      for (const int sixteenths : {0, 5, 16, kernels::kMaxSharpening}) {
        Bytes expected;
        for (size_t i = 0; i < source.bytes.size(); ++i) {
          const double sharp = source.bytes[i] + sixteenths * (source.bytes[i] - means.bytes[i]) / 16.0;
          expected.push_back(static_cast<uint8_t>(std::clamp(std::floor(sharp + 0.5), 0.0, 255.0)));
        }
        kernels::sharpen(from.plane(), taps, sixteenths, actual.plane());
        EXPECT_EQ(actual.content(), expected) << sixteenths << " sixteenths";
      }
    }
  });
}

TEST(LimitChange, ClampsEachSampleNearItsOriginal) {
  onEachPathAndSize([](Size size) {
    const Bytes original = noisyBytes(size.area(), 9), changed = noisyBytes(size.area(), 10);
    for (const int limit : {0, 5, 255}) {
      Bytes expected;
      for (size_t i = 0; i < original.size(); ++i) {
        const int change = std::clamp(changed[i] - original[i], -limit, limit);
        expected.push_back(static_cast<uint8_t>(original[i] + change));
      }
      Sheet actual = Sheet::target(size, changed);
      kernels::limitChange(Sheet::source(size, original).plane(), limit, actual.plane());
      EXPECT_EQ(actual.content(), expected) << "limit " << limit;
    }
  });
}

TEST(SmoothChroma, AveragesRowsThenColumnsOfEachComponent) {
  onEachPathAndSize([](Size size) {
    for (const int radius : {0, 1, 4, 26, 63, 64}) {  // vectors go up to 63
      SCOPED_TRACE(testing::Message() << "radius " << radius);
      constexpr int kIterations = 3;
      Image components[2] = {{size, noisyBytes(size.area(), 5)}, {size, noisyBytes(size.area(), 6)}};
      std::fill_n(components[1].bytes.begin(), size.area() / 2, uint8_t{255});  // the max sums
      Bytes interleaved;
      for (size_t i = 0; i < 2 * size.area(); ++i) interleaved.push_back(components[i % 2].bytes[i / 2]);
      Sheet pairs = Sheet::target({2 * size.width, size.height}, interleaved);
      Bytes scratch(size.area());
      kernels::smoothChroma(pairs.plane(), radius, kIterations, scratch.data());

      for (Image& component : components) {
        const std::vector<int> line(static_cast<size_t>(2 * radius + 1), 1);
        for (int i = 0; i < kIterations; ++i) component = filtered(component, line, {1}, -radius, 0);
        for (int i = 0; i < kIterations; ++i) component = filtered(component, {1}, line, 0, -radius);
      }
      Bytes expected;
      for (size_t i = 0; i < 2 * size.area(); ++i) expected.push_back(components[i % 2].bytes[i / 2]);
      EXPECT_EQ(pairs.content(), expected);
    }
  });
}

// Black, one pixel of each value, then white: the moving window takes every possible sum. Rows only, so that a second
// mean cannot hide a wrong quotient.
TEST(SmoothChroma, DividesEverySumExactly) {
  onEachPath([] {
    for (int radius = 1; radius <= 63; ++radius) {
      const int width = 2 * radius + 2, taps = 2 * radius + 1;
      constexpr int kHeight = 256;
      Bytes pairs;
      for (int value = 0; value < kHeight; ++value) {
        for (int x = 0; x < width; ++x)
          pairs.insert(pairs.end(), 2, static_cast<uint8_t>(x <= radius ? 0 : x == radius + 1 ? value : 255));
      }
      Bytes scratch(pairs.size() / 2);
      kernels::rowKernels().smoothRows(packed(pairs.data(), 2 * width, kHeight), 0, kHeight, radius, 1, scratch.data());
      int wrong = 0;
      for (int sum = 0; sum < 255 * taps; ++sum) {
        const auto at = static_cast<size_t>(2 * (sum % 255 * width + sum / 255 + 1));
        wrong += pairs[at] != (sum + radius) / taps || pairs[at + 1] != (sum + radius) / taps;
      }
      EXPECT_EQ(wrong, 0) << "radius " << radius;
    }
  });
}

TEST(Kernels, HelpersChangeNoByte) {
  constexpr Size kSize = {643, 205};  // several blocks in both directions, with remainders
  const Bytes source = noisyBytes(kSize.area(), 9), chroma = noisyBytes(2 * kSize.area(), 10);
  onEachPath([&] {
    std::vector<Bytes> alone;
    for (const int helpers : {-1, 0, 1, 4}) {
      SCOPED_TRACE(testing::Message() << helpers << " helpers");
      WorkerPool pool;
      const Lent lent(&pool, std::max(helpers, 0));
      WorkerPool* help = helpers < 0 ? nullptr : &pool;
      const ConstPlane from = packed(source.data(), kSize.width, kSize.height);
      std::vector<Bytes> results(4, Bytes(kSize.area()));
      const auto plane = [&](size_t i) { return packed(results[i].data(), kSize.width, kSize.height); };
      kernels::gauss(from, Gauss::kFive, plane(0), help);
      kernels::sharpen(from, Gauss::kThree, 20, plane(1), help);
      Bytes scratch(kSize.area());
      results[2] = source;
      kernels::smoothTwice(plane(2), scratch.data(), help);
      results[3] = chroma;
      kernels::smoothChroma(packed(results[3].data(), 2 * kSize.width, kSize.height), 7, 4, scratch.data(), help);
      if (helpers < 0) alone = results;
      EXPECT_EQ(results, alone);
    }
  });
}

}  // namespace
}  // namespace noxel
