#include "kernels/planes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace noxel {
namespace {

using Bytes = std::vector<uint8_t>;

struct Size {
  int width;
  int height;
  size_t area() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
};

// One pixel, one line, odd, below and just above a vector's 16 bytes, larger than every filter's reach.
constexpr Size kSizes[] = {{1, 1}, {1, 9}, {7, 1}, {4, 2}, {3, 5}, {17, 15}, {31, 18}, {65, 33}};

// 16 and the lengths round it are where a vector loop hands over to its tail.
constexpr size_t kCounts[] = {0, 1, 15, 16, 17, 31, 32, 33, 1000};

Bytes randomBytes(size_t count, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(count);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

// A buffer that notices what is written beside it. It begins at an odd address: no kernel may count on alignment. Each
// has marks of its own: what one kernel copies out of one buffer's guard shows in another's.
class Guarded {
 public:
  explicit Guarded(size_t count) : size(count), mark(++lastMark), bytes(count + 2 * kGuard, mark) {}
  explicit Guarded(const Bytes& content) : Guarded(content.size()) {
    std::copy(content.begin(), content.end(), data());
  }

  uint8_t* data() { return bytes.data() + kGuard; }
  Bytes content() { return {data(), data() + size}; }
  bool intact() const {
    const auto isMark = [this](uint8_t byte) { return byte == mark; };
    return std::all_of(bytes.begin(), bytes.begin() + kGuard, isMark) &&
           std::all_of(bytes.end() - kGuard, bytes.end(), isMark);
  }

 private:
  static constexpr ptrdiff_t kGuard = 33;
  static inline uint8_t lastMark = 0;
  size_t size;
  uint8_t mark;
  Bytes bytes;
};

struct Plane {
  Size size;
  Bytes bytes;
  int at(int x, int y) const {  // edge pixels repeated
    const int column = std::clamp(x, 0, size.width - 1);
    const int row = std::clamp(y, 0, size.height - 1);
    return bytes[static_cast<size_t>(row * size.width + column)];
  }
};

Plane boxOfSixteen(const Plane& source, int first) {
  Plane result = {source.size, {}};
  for (int y = 0; y < source.size.height; ++y) {
    for (int x = 0; x < source.size.width; ++x) {
      int sum = 0;
      for (int dy = first; dy < first + 4; ++dy) {
        for (int dx = first; dx < first + 4; ++dx) sum += source.at(x + dx, y + dy);
      }
      result.bytes.push_back(static_cast<uint8_t>(std::floor(sum / 16.0 + 0.5)));
    }
  }
  return result;
}

Plane lineMean(const Plane& source, int radius, bool horizontal) {
  Plane result = {source.size, {}};
  for (int y = 0; y < source.size.height; ++y) {
    for (int x = 0; x < source.size.width; ++x) {
      double sum = 0;
      for (int d = -radius; d <= radius; ++d) sum += horizontal ? source.at(x + d, y) : source.at(x, y + d);
      result.bytes.push_back(static_cast<uint8_t>(std::floor(sum / (2 * radius + 1) + 0.5)));
    }
  }
  return result;
}

TEST(Interleave, PairsAndTakesApartEveryLength) {
  for (const size_t count : kCounts) {
    SCOPED_TRACE(count);
    const Bytes first = randomBytes(count, 1);
    const Bytes second = randomBytes(count, 2);
    Bytes expected;
    for (size_t i = 0; i < count; ++i) expected.insert(expected.end(), {first[i], second[i]});

    Guarded pairs(2 * count);
    kernels::interleave(Guarded(first).data(), Guarded(second).data(), pairs.data(), count);
    EXPECT_EQ(pairs.content(), expected);
    EXPECT_TRUE(pairs.intact());

    Guarded firstBack(count);
    Guarded secondBack(count);
    kernels::deinterleave(pairs.data(), firstBack.data(), secondBack.data(), count);
    EXPECT_EQ(firstBack.content(), first);
    EXPECT_EQ(secondBack.content(), second);
    EXPECT_TRUE(firstBack.intact() && secondBack.intact());
  }
}

TEST(Downscale, AveragesBlocksAndDropsTheOddRowAndColumn) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(testing::Message() << size.width << " x " << size.height);
    const Plane source = {size, randomBytes(size.area(), 3)};
    const Size half = {size.width / 2, size.height / 2};
    Bytes ofFour;
    Bytes ofDiagonal;
    for (int y = 0; y < half.height; ++y) {
      for (int x = 0; x < half.width; ++x) {
        const int diagonal = source.at(2 * x, 2 * y) + source.at(2 * x + 1, 2 * y + 1);
        const int sum = diagonal + source.at(2 * x + 1, 2 * y) + source.at(2 * x, 2 * y + 1);
        ofFour.push_back(static_cast<uint8_t>(std::floor(sum / 4.0 + 0.5)));
        ofDiagonal.push_back(static_cast<uint8_t>(std::floor(diagonal / 2.0 + 0.5)));
      }
    }
    Guarded actual(half.area());
    kernels::downscaleByTwo(source.bytes.data(), size.width, size.height, actual.data());
    EXPECT_EQ(actual.content(), ofFour);
    kernels::downscaleByTwoDiagonal(source.bytes.data(), size.width, size.height, actual.data());
    EXPECT_EQ(actual.content(), ofDiagonal);
    EXPECT_TRUE(actual.intact());
  }
}

TEST(SmoothTwice, IsTwoBoxesOfSixteen) {
  for (const Size size : kSizes) {
    SCOPED_TRACE(testing::Message() << size.width << " x " << size.height);
    const Plane source = {size, randomBytes(size.area(), 4)};
    Guarded image(source.bytes);
    Guarded scratch(size.area());
    kernels::smoothTwice(image.data(), size.width, size.height, scratch.data());
    EXPECT_EQ(image.content(), boxOfSixteen(boxOfSixteen(source, -2), -1).bytes);
    EXPECT_TRUE(image.intact() && scratch.intact());
  }
}

TEST(SmoothTwice, ShiftsNothing) {
  constexpr Size kSize = {21, 19};
  constexpr int kX = 9;
  constexpr int kY = 10;
  Bytes image(kSize.area(), 0);
  Bytes scratch(kSize.area());
  image[kY * kSize.width + kX] = 255;
  kernels::smoothTwice(image.data(), kSize.width, kSize.height, scratch.data());

  long weight = 0;
  long momentX = 0;
  long momentY = 0;
  for (int y = 0; y < kSize.height; ++y) {
    for (int x = 0; x < kSize.width; ++x) {
      const long value = image[static_cast<size_t>(y * kSize.width + x)];
      weight += value;
      momentX += value * (x - kX);
      momentY += value * (y - kY);
    }
  }
  EXPECT_EQ(weight, 256);  // 16 codes in each of 16 pixels, whose sixteenths are whole: 255 rounded up once
  EXPECT_EQ(momentX, 0);
  EXPECT_EQ(momentY, 0);
}

TEST(SmoothChroma, AveragesRowsThenColumnsOfEachComponent) {
  for (const Size size : kSizes) {
    for (const int radius : {1, 4, 16}) {
      SCOPED_TRACE(testing::Message() << size.width << " x " << size.height << ", radius " << radius);
      constexpr int kIterations = 3;
      Plane components[2] = {{size, randomBytes(size.area(), 5)}, {size, randomBytes(size.area(), 6)}};
      Bytes interleaved;
      for (size_t i = 0; i < 2 * size.area(); ++i) interleaved.push_back(components[i % 2].bytes[i / 2]);
      Guarded pairs(interleaved);
      Guarded scratch(static_cast<size_t>(std::max(size.width, size.height)));
      kernels::smoothChroma(pairs.data(), size.width, size.height, radius, kIterations, scratch.data());

      for (Plane& plane : components) {
        for (const bool horizontal : {true, false}) {
          for (int i = 0; i < kIterations; ++i) plane = lineMean(plane, radius, horizontal);
        }
      }
      const Bytes actual = pairs.content();
      bool same = true;
      for (size_t i = 0; i < actual.size(); ++i) same = same && actual[i] == components[i % 2].bytes[i / 2];
      EXPECT_TRUE(same);
      EXPECT_TRUE(pairs.intact() && scratch.intact());
    }
  }
}

}  // namespace
}  // namespace noxel
