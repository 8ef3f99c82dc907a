#include "registration/noise_curve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "registration/noise_block.h"
#include "registration/tracker/lanes.h"
#include "registration/video_noise.h"

namespace noxel {
namespace {

using Plane = std::vector<double>;
using Frame = std::vector<uint8_t>;

constexpr int kWidth = 320;
constexpr int kHeight = 240;

// A picture with flat places, edges and texture, luma 20 to 200, at any position: waves of 7 to 40 pixels that come and go.
double pictureAt(double x, double y) {
  const double amount = std::max(0.0, std::sin(x / 61) * std::sin(y / 47));
  return 110 + 80 * std::sin(x / 90 + 1) * std::cos(y / 70) +
         amount * (12 * std::sin(x / 3.1 + y / 5) + 8 * std::sin(y / 2.3));
}

struct Motion {
  double x;
  double y;
};

// The picture moved by `far`; the columns of every third hundred lie in front of it and move by `near`.
Plane sceneAt(Motion far, Motion near) {
  Plane scene;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const bool front = std::fmod(x + near.x + 3000, 300) < 100;
      scene.push_back(front ? pictureAt(x + near.x + 500, y + near.y) : pictureAt(x + far.x, y + far.y));
    }
  }
  return scene;
}

// white: independent pixels. Otherwise each is the mean of a 2 x 2 square: a correlation of 1/2 over a pixel.
class Camera {
 public:
  Camera(double read, double shot, bool white) : read_(read), shot_(shot), white_(white) {}

  double varianceAt(double luma) const { return read_ * read_ + shot_ * luma + 1.0 / 12; }

  Frame shoot(const Plane& scene) {
    std::normal_distribution<double> gauss;
    Plane noise(scene.size() + kWidth + 1);
    for (double& one : noise) one = gauss(random_);
    Frame frame;
    for (size_t i = 0; i < scene.size(); ++i) {
      const double unit = white_ ? noise[i] : (noise[i] + noise[i + 1] + noise[i + kWidth] + noise[i + kWidth + 1]) / 2;
      const double level = scene[i] + unit * std::sqrt(read_ * read_ + shot_ * scene[i]);
      frame.push_back(static_cast<uint8_t>(std::clamp(std::round(level), 0.0, 255.0)));
    }
    return frame;
  }

 private:
  std::mt19937 random_{7};
  double read_;
  double shot_;
  bool white_;
};

template <typename Base>
class Measured : public Base {
 public:
  explicit Measured(int width = kWidth, int height = kHeight) { EXPECT_TRUE(this->allocate(width, height)); }
  // (x, y): what is at a place of this frame was that much further in the one before.
  void measureMoved(const Frame& frame, Motion motion, const ChromaPlanes& chroma = {}) {
    const float matrix[9] = {1, 0, static_cast<float>(motion.x), 0, 1, static_cast<float>(motion.y), 0, 0, 1};
    this->measure(frame.data(), matrix, chroma);
  }
};
using Meter = Measured<NoiseMeter>;
using Video = Measured<VideoNoise>;

// Entries that cover at least one pixel in 50.
std::vector<int> entriesOf(const Plane& scene) {
  int counts[NoiseCurve::kEntries] = {};
  for (const double level : scene) ++counts[std::clamp(static_cast<int>(level / 8), 0, NoiseCurve::kEntries - 1)];
  std::vector<int> entries;
  for (int i = 0; i < NoiseCurve::kEntries; ++i) {
    if (counts[i] > static_cast<int>(scene.size()) / 50) entries.push_back(i);
  }
  return entries;
}

struct Case {
  const char* name;
  Motion step;  // a frame
  Motion near;  // of the nearer columns, beside that
};

TEST(NoiseCurve, IsTheCamerasWhateverMoves) {
  constexpr Case kCases[] = {
      {"still", {0, 0}, {0, 0}}, {"pan", {2.4, -1.3}, {0, 0}}, {"depth", {2.4, -1.3}, {4.7, 1.2}}};
  for (const Case& one : kCases) {
    for (const double sigma : {1.0, 4.0, 16.0}) {
      for (const bool shot : {false, true}) {
        for (const bool white : {true, false}) {
          SCOPED_TRACE(std::string(one.name) + (shot ? " shot" : " read") + (white ? " white " : " correlated ") +
                       std::to_string(sigma));
          Camera camera(shot ? sigma / 2 : sigma, shot ? 0.0075 * sigma * sigma : 0, white);
          Meter meter;
          for (int frame = 0; frame < 7; ++frame) {
            const Motion far = {frame * one.step.x, frame * one.step.y};
            const Motion near = {far.x + frame * one.near.x, far.y + frame * one.near.y};
            const Plane scene = sceneAt(far, near);
            // What moves by +step in the scene's coordinates was at x + step in the frame before.
            meter.measureMoved(camera.shoot(scene), one.step);
            if (frame < 3) continue;
            for (const int i : entriesOf(scene)) {
              const double truth = camera.varianceAt(8 * i + 4);
              // 15 %, and what few blocks leave open: this frame has 300 of them for 20 entries. With depth, the edges
              // of what is near are in many of them.
              const double ratio = static_cast<double>(meter.curve().variance[i]) / truth;
              EXPECT_GT(ratio, 0.75) << "entry " << i << ", frame " << frame;
              EXPECT_LT(ratio, one.near.x != 0 ? 1.5 : 1.25) << "entry " << i << ", frame " << frame;
            }
          }
        }
      }
    }
  }
}

TEST(NoiseCurve, StartsFromOneFrame) {
  for (const bool white : {true, false}) {
    Camera camera(6, 0, white);
    Meter meter;
    meter.measure(camera.shoot(sceneAt({}, {})).data(), nullptr);
    ASSERT_TRUE(meter.curve().known);
    // Correlated noise loses low frequencies to the planes, the picture's texture adds.
    for (const int i : entriesOf(sceneAt({}, {}))) {
      EXPECT_GT(meter.curve().variance[i], 36 / 2.0);
      EXPECT_LT(meter.curve().variance[i], 36 * 1.5);
    }
    // A camera with other noise, a sequence of its own.
    Camera other(2, 0, white);
    meter.restart();
    EXPECT_FALSE(meter.curve().known);
    meter.measure(other.shoot(sceneAt({}, {})).data(), nullptr);
    EXPECT_LT(meter.curve().variance[13], 4 * 1.5);
  }
}

// U and V of colour that changes with luma, in pairs or plane after plane; their noise has 0.5 and 0.3 of luma's variance.
TEST(NoiseCurve, HasThatOfChroma) {
  constexpr size_t kSamples = kWidth / 2 * (kHeight / 2);
  constexpr double kShares[2] = {0.5, 0.3};
  for (const bool pairs : {true, false}) {
    for (const Motion step : {Motion{0, 0}, Motion{2.4, -1.3}}) {
      for (const double sigma : {1.5, 8.0}) {
        SCOPED_TRACE(std::string(pairs ? "pairs " : "planes ") + std::to_string(step.x) + " " + std::to_string(sigma));
        Camera camera(sigma / 2, 0.0075 * sigma * sigma, true);
        std::mt19937 random(9);
        std::normal_distribution<double> gauss;
        Meter meter;
        for (int n = 0; n < 6; ++n) {
          const Plane scene = sceneAt({n * step.x, n * step.y}, {n * step.x, n * step.y});
          Frame chroma(2 * kSamples);
          for (size_t i = 0; i < 2 * kSamples; ++i) {
            const size_t at = i % kSamples;
            const double luma = scene[2 * (at / (kWidth / 2)) * kWidth + 2 * (at % (kWidth / 2))];
            const double deviation = std::sqrt(kShares[i / kSamples] * (camera.varianceAt(luma) - 1.0 / 12));
            const double level = 128 + 0.3 * (luma - 110) + deviation * gauss(random);
            chroma[pairs ? 2 * at + i / kSamples : i] = static_cast<uint8_t>(std::clamp(std::round(level), 0.0, 255.0));
          }
          const uint8_t* u = chroma.data();
          const ChromaPlanes planes =
              pairs ? ChromaPlanes{{u, u + 1}, 2, kWidth} : ChromaPlanes{{u, u + kSamples}, 1, kWidth / 2};
          if (n == 0) {
            meter.measure(camera.shoot(scene).data(), nullptr, planes);
          } else {
            meter.measureMoved(camera.shoot(scene), step, planes);
          }
          ASSERT_TRUE(meter.curve().chromaKnown);
          for (const int i : entriesOf(scene)) {
            for (int plane = 0; plane < 2; ++plane) {
              const double truth = kShares[plane] * (camera.varianceAt(8 * i + 4) - 1.0 / 12) + 1.0 / 12;
              const double ratio = static_cast<double>(meter.curve().chromaVariance[plane][i]) / truth;
              // From one frame within a factor; later as luma's, which it inherits, and the few blocks' own error.
              EXPECT_GT(ratio, n == 0 ? 0.5 : 0.7) << "frame " << n << ", plane " << plane << ", entry " << i;
              EXPECT_LT(ratio, n == 0 ? 1.5 : 1.35) << "frame " << n << ", plane " << plane << ", entry " << i;
            }
          }
        }
        meter.measureMoved(camera.shoot(sceneAt({}, {})), {});  // a frame without chroma changes nothing
        EXPECT_TRUE(meter.curve().chromaKnown);
      }
    }
  }
}

// Black bars above, below and on the left, and a logo: the same in each frame.
Frame withBars(Frame frame) {
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      uint8_t& pixel = frame[static_cast<size_t>(y * kWidth + x)];
      if (y < 43 || y >= kHeight - 43 || x < 21) pixel = 16;
      if (x > 250 && x < 300 && y > 60 && y < 100) pixel = static_cast<uint8_t>(150 + x % 7 * y % 11);
    }
  }
  return frame;
}

TEST(NoiseCurve, WhatIsNoNoiseIsLeftOut) {
  const Plane scene = sceneAt({}, {});
  const std::vector<int> entries = entriesOf(scene);
  Camera camera(3, 0, true);
  Meter barred;
  Meter brighter;
  Meter repeated;
  for (int frame = 0; frame < 8; ++frame) {
    const Frame shot = camera.shoot(scene);
    if (frame == 5) {  // a cut, and back
      barred.measure(camera.shoot(sceneAt({90, 40}, {})).data(), nullptr);
      barred.measure(withBars(shot).data(), nullptr);
    } else {
      barred.measureMoved(withBars(shot), {});
    }
    // The lamp flickers by a tenth; its noise follows by less than the tolerance.
    Plane flickering = scene;
    for (double& level : flickering) level *= frame % 2 == 0 ? 1.0 : 1.1;
    brighter.measureMoved(camera.shoot(flickering), {});
    repeated.measureMoved(shot, {});
    for (int i = 0; i < 3; ++i) repeated.measureMoved(shot, {});
  }
  const double truth = camera.varianceAt(0);
  for (const int i : entries) {
    EXPECT_NEAR(barred.curve().variance[i], truth, 0.25 * truth) << i;
    EXPECT_NEAR(brighter.curve().variance[i], truth, 0.25 * truth) << i;
    EXPECT_NEAR(repeated.curve().variance[i], truth, 0.25 * truth) << i;
  }
}

TEST(NoiseCurve, IsThatOfClippedPixelsInTheDark) {
  // Gauss clipped at 0 around level 4 with sigma 16: mean 8.5, variance 0.407 of sigma squared. Rounding adds nothing of note.
  const Plane dark(kWidth * kHeight, 4.0);
  Camera camera(16, 0, true);
  Meter meter;
  for (int frame = 0; frame < 4; ++frame) meter.measureMoved(camera.shoot(dark), {});
  const double ratio =
      (0.5 * static_cast<double>(meter.curve().variance[0]) + 0.5 * static_cast<double>(meter.curve().variance[1])) /
      256;
  EXPECT_NEAR(ratio, 0.407, 0.15 * 0.407);
}

TEST(NoiseCurve, IsNoneWhereThereIsNone) {
  for (const bool flat : {true, false}) {
    Frame frame(kWidth * kHeight, 90);
    for (size_t i = 0; !flat && i < frame.size(); ++i)
      frame[i] = static_cast<uint8_t>(pictureAt(i % kWidth, i / kWidth));
    Meter meter;
    for (int i = 0; i < 6; ++i) meter.measureMoved(frame, {});
    for (const float variance : meter.curve().variance) EXPECT_LE(variance, 0.01f);
  }
}

TEST(NoiseCurve, IsSteadyAndFollowsTheCamera) {
  const Plane scene = sceneAt({}, {});
  Meter meter;
  const auto run = [&](double sigma, int frames) {
    Camera camera(sigma, 0, true);
    float last = 0;
    for (int frame = 0; frame < frames; ++frame) {
      last = meter.curve().variance[13];
      meter.measureMoved(camera.shoot(scene), {});
    }
    return std::fabs(meter.curve().variance[13] / last - 1);
  };
  EXPECT_LT(run(3, 12), 0.05f) << "a step from frame to frame";
  run(6, 20);  // the camera turns its gain up
  EXPECT_NEAR(meter.curve().variance[13], 36, 0.15 * 36);
  run(3, 10);
  EXPECT_NEAR(meter.curve().variance[13], 9, 0.15 * 9);
}

TEST(NoiseCurve, TakesAnyBytesAndSizes) {
  std::mt19937 random(3);
  for (const int width : {1, 2, 17, 18, 19, 34, 2000}) {
    for (const int height : {1, 17, 18, 33}) {
      Meter meter(width, height);
      for (int frame = 0; frame < 6; ++frame) {
        Frame bytes(static_cast<size_t>(width) * static_cast<size_t>(height));
        for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(frame == 3 ? 255 * (random() & 1) : random());
        const double far = frame == 4 ? 1e30 : frame == 5 ? std::nan("") : 3.0;
        const uint8_t* chroma = bytes.data();  // half of the luma's bytes are enough
        meter.measureMoved(bytes, {far, -1}, {{chroma + 1, chroma}, 2, width / 2 * 2});
        for (int i = 0; i < NoiseCurve::kEntries; ++i) {
          const NoiseCurve& curve = meter.curve();
          for (const float variance : {curve.variance[i], curve.chromaVariance[0][i], curve.chromaVariance[1][i]}) {
            EXPECT_TRUE(std::isfinite(variance) && variance >= 0) << width << " x " << height;
          }
        }
      }
      // Four blocks of 16 x 16, with a pixel around each.
      const bool none = width < 18 || height < 18;
      const bool four = width >= 34 && height >= 33;
      EXPECT_TRUE(meter.curve().known ? !none : !four) << width << " x " << height;
    }
  }
}

// A still camera's frames as a codec leaves them: a block of 16 x 16 pixels stays as it was, but for one in `period`, at random.
class Codec {
 public:
  explicit Codec(unsigned period) : period_(period) {}
  const Frame& code(const Frame& frame) {
    const bool whole = coded_.empty();
    if (whole) coded_ = frame;
    for (int y = 0; y < kHeight; y += 16) {
      for (int x = 0; x < kWidth; x += 16) {
        if (!whole && random_() % period_ != 0) continue;
        for (int row = y; row < y + 16; ++row) std::copy_n(&frame[row * kWidth + x], 16, &coded_[row * kWidth + x]);
      }
    }
    return coded_;
  }

 private:
  std::mt19937 random_{11};
  unsigned period_;
  Frame coded_;
};

TEST(VideoNoise, IsThatOfTheFramesThatACodecRepeats) {
  const Plane scene = sceneAt({}, {});
  Camera camera(5, 0, false);
  Codec codec(5);
  Meter meter;
  Video video;
  for (int frame = 0; frame <= 2 * VideoNoise::kApart; ++frame) {
    const Frame& coded = codec.code(camera.shoot(scene));
    meter.measureMoved(coded, {});
    video.measureMoved(coded, {});
  }
  for (const int i : entriesOf(scene)) {
    const double truth = camera.varianceAt(8 * i + 4);
    EXPECT_LT(static_cast<double>(meter.curve().variance[i]), 0.2 * truth) << "four blocks in five are repeated";
    // 3 % of the blocks are those of 16 frames before; grid blocks lie across coded ones.
    EXPECT_NEAR(static_cast<double>(video.curve().variance[i]) / truth, 1, 0.25) << i;
  }
}

TEST(VideoNoise, IsThatOfNeighboursWhereNothingRepeats) {
  const Motion step = {2.4, -1.3};
  Camera camera(4, 0, true);
  Meter meter;
  Video video;
  for (int frame = 0; frame <= 3 * VideoNoise::kApart; ++frame) {
    // Half way there is a cut to another place: the motion over it is not known.
    const bool cut = frame == VideoNoise::kApart + 5;
    const double far = frame >= VideoNoise::kApart + 5 ? 700 : 0;
    const Motion at = {far + frame * step.x, frame * step.y};
    const Frame shot = camera.shoot(sceneAt(at, at));
    if (cut) {
      meter.measure(shot.data(), nullptr);
      video.measure(shot.data(), nullptr);
    } else {
      meter.measureMoved(shot, step);
      video.measureMoved(shot, step);
    }
    EXPECT_TRUE(
        std::equal(std::begin(video.curve().variance), std::end(video.curve().variance), meter.curve().variance))
        << frame;
  }
}

TEST(NoiseBlock, SumsAreTheSameOnEveryProcessor) {
  std::mt19937 random(5);
  uint8_t planes[2][20 * 20];
  for (auto& plane : planes) {
    for (uint8_t& byte : plane) byte = static_cast<uint8_t>(random() % 3 == 0 ? 255 * (random() & 1) : random());
  }
  const noise::HalfSums native = noise::sumHalf<tracker::NativeLanes>({planes[0] + 21, 20}, {planes[1] + 23, 20});
  const noise::HalfSums plain = noise::sumHalf<tracker::PlainLanes>({planes[0] + 21, 20}, {planes[1] + 23, 20});
  EXPECT_EQ(std::memcmp(&native, &plain, sizeof(plain)), 0);
}

}  // namespace
}  // namespace noxel
