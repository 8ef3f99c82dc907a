#include "support/picture.h"

#include <png.h>

#include <algorithm>
#include <cstdlib>
#include <random>

namespace noxel {

std::vector<uint8_t> noisyBytes(size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

Picture noisyPicture(int width, int height, unsigned seed) {
  Picture picture(width, height);
  std::mt19937 random(seed);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < 4; ++c) {
        const bool bright = (x / 7 + y / 5 + c) % 2 == 0;
        picture.at(x, y, c) = static_cast<uint8_t>((bright ? 150 : 20) + random() % 96);
      }
    }
  }
  return picture;
}

namespace {

bool writePng(const Picture& picture, const std::string& path) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.width);
  image.height = static_cast<png_uint_32>(picture.height);
  image.format = PNG_FORMAT_RGBA;
  return png_image_write_to_file(&image, path.c_str(), 0, picture.rgba.data(), 0, nullptr) != 0;
}

// Of the running test, as a file name.
std::string testName() {
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = test != nullptr ? std::string(test->test_suite_name()) + "_" + test->name() : "picture";
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

Picture differencePicture(const Picture& actual, const Picture& expected) {
  Picture picture(actual.width, actual.height);
  for (size_t i = 0; i < picture.rgba.size(); ++i) {
    const int distance = std::abs(actual.rgba[i] - expected.rgba[i]);
    picture.rgba[i] = i % 4 == 3 ? 255 : static_cast<uint8_t>(std::min(16 * distance, 255));
  }
  return picture;
}

// In packed pictures alpha carries data: make it opaque so that the PNG shows something.
Picture opaque(Picture picture) {
  for (size_t i = 3; i < picture.rgba.size(); i += 4) picture.rgba[i] = 255;
  return picture;
}

}  // namespace

::testing::AssertionResult closeTo(const Picture& actual, const Picture& expected, int max, double share, int bound) {
  if (actual.width != expected.width || actual.height != expected.height || actual.rgba.empty()) {
    return ::testing::AssertionFailure() << "actual is " << actual.width << " x " << actual.height << ", expected "
                                         << expected.width << " x " << expected.height;
  }
  const int shareBound = share < 1.0 ? bound : max;
  int maxSeen = 0;
  double within = 0;
  for (size_t i = 0; i < actual.rgba.size(); ++i) {
    const int distance = std::abs(actual.rgba[i] - expected.rgba[i]);
    maxSeen = std::max(maxSeen, distance);
    if (distance <= shareBound) ++within;
  }
  within /= static_cast<double>(actual.rgba.size());
  if (maxSeen <= max && within >= share) return ::testing::AssertionSuccess();

  const std::string name = testName();
  const bool written = writePng(opaque(actual), name + "_actual.png") &&
                       writePng(opaque(expected), name + "_expected.png") &&
                       writePng(differencePicture(actual, expected), name + "_difference.png");
  return ::testing::AssertionFailure() << "max difference " << maxSeen << " (allowed " << max << "), " << 100.0 * within
                                       << " % within " << shareBound << " (wanted " << 100.0 * share << " %); pictures "
                                       << (written ? "in " : "could not be written to ") << name << "_*.png";
}

}  // namespace noxel
