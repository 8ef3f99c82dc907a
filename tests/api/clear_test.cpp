// What the clear picture keeps to whatever it is shown: on the GPU side alone, with motion and noise that are known.
#include <algorithm>
#include <cmath>
#include <random>

#include "support/clear_engine.h"

namespace noxel {
namespace {

using reference::Plane;

constexpr int kWidth = 96;
constexpr int kHeight = 64;
constexpr int kMargin = 8;  // pixels at each edge left out of what is measured

// What a camera sees of a scene without noise.
struct Truth {
  Plane luma{kWidth, kHeight}, blue{kWidth / 2, kHeight / 2}, red{kWidth / 2, kHeight / 2};
};

const Waves& lumaScene() {
  static const Waves scene(5, 4);
  return scene;
}

Truth seen(const View& sceneFromFrame) {
  static const Waves blue(6, 16), red(7, 16);
  const auto at = [&](const Waves& waves, double x, double y) {
    const View& v = sceneFromFrame;
    return waves.at(v[0] * x + v[1] * y + v[2], v[3] * x + v[4] * y + v[5]);
  };
  Truth truth;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) truth.luma.at(x, y) = at(lumaScene(), x + 0.5, y + 0.5);
  }
  for (int y = 0; y < kHeight / 2; ++y) {
    for (int x = 0; x < kWidth / 2; ++x) {
      truth.blue.at(x, y) = 128 + (at(blue, 2 * x + 1, 2 * y + 1) - 110) / 2;
      truth.red.at(x, y) = 128 + (at(red, 2 * x + 1, 2 * y + 1) - 110) / 2;
    }
  }
  return truth;
}

unsigned char byteOf(double level) {
  return static_cast<unsigned char>(std::lround(std::clamp(level, 0.0, 255.0)));
}

TestFrame filmed(const Truth& truth, double sigma, double chromaSigma, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> noise(0, 1);
  TestFrame frame(kWidth, kHeight);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) frame.luma(x, y) = byteOf(truth.luma.at(x, y) + sigma * noise(random));
  }
  for (int y = 0; y < kHeight / 2; ++y) {
    for (int x = 0; x < kWidth / 2; ++x) {
      frame.u(2 * x, 2 * y) = byteOf(truth.blue.at(x, y) + chromaSigma * noise(random));
      frame.v(2 * x, 2 * y) = byteOf(truth.red.at(x, y) + chromaSigma * noise(random));
    }
  }
  return frame;
}

double squaredError(const Plane& a, const Plane& b, int margin) {
  double sum = 0;
  for (int y = margin; y < a.height - margin; ++y) {
    for (int x = margin; x < a.width - margin; ++x) sum += std::pow(a.at(x, y) - b.at(x, y), 2);
  }
  return sum / ((a.width - 2 * margin) * (a.height - 2 * margin));
}

class Clear : public testing::Test {
 protected:
  void SetUp() override {
    if (engine.isReady()) return;
    ASSERT_FALSE(driverRequired()) << "no usable GL driver";
    GTEST_SKIP() << "no usable GL driver";
  }

  void noiseIs(double sigma, double chromaSigma) {
    const auto stored = [](double deviation) { return static_cast<float>(deviation * deviation + 1.0 / 12); };
    std::fill_n(engine.frame.noise.luma, FrameNoise::kEntries, stored(sigma));
    std::fill_n(engine.frame.noise.blue, FrameNoise::kEntries, stored(chromaSigma));
    std::fill_n(engine.frame.noise.red, FrameNoise::kEntries, stored(chromaSigma));
  }

  ClearEngine engine{kWidth, kHeight};
  float levels[256] = {}, gains[256] = {};  // a tone
};

TEST_F(Clear, AStillScenesNoiseFallsAsTheNumberOfFramesUpToSixteen) {
  constexpr double kSigma = 6, kChromaSigma = 4;
  noiseIs(kSigma, kChromaSigma);
  const Truth truth = seen(kStill);
  for (int n = 1; n <= 40; ++n) {
    engine.draw(filmed(truth, kSigma, kChromaSigma, static_cast<unsigned>(n)), n > 1 ? &kStill : nullptr);
    if ((n & (n - 1)) != 0 && n != 40) continue;
    const reference::Canvas blend = engine.read(Image::kBlend);
    // Noise alone makes the test refuse a few cells, which begin anew.
    double squares = 0, chroma = 0, whole = 0, counts = 0;
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const double count = blend.count.at(x / 2, y / 2);
        counts += count / (kWidth * kHeight);
        if (count < std::min(n, 16) - 0.01) continue;
        ++whole;
        squares += std::pow(blend.luma.at(x, y) - truth.luma.at(x, y), 2);
        chroma += std::pow(blend.blue.at(x / 2, y / 2) - truth.blue.at(x / 2, y / 2), 2);
      }
    }
    const double expected = n <= 16 ? 1.0 / n : n < 40 ? 1.0 / 28 : 1.0 / 30;  // a share of 1/16 ends at 1/31
    EXPECT_NEAR(squares / whole / (kSigma * kSigma + 1.0 / 12), expected, 0.1 * expected) << n;
    EXPECT_NEAR(chroma / whole / (kChromaSigma * kChromaSigma + 1.0 / 12), expected, 0.15 * expected) << n;
    EXPECT_GT(whole, 0.85 * kWidth * kHeight) << n;
    EXPECT_GT(counts, 0.94 * std::min(n, 16)) << n;
  }
}

// The chroma of grey, and a level of 0, through every pass with a camera that moves, noise in luma, and a tone that makes
// colours stronger.
TEST_F(Clear, BlackStaysBlackGreyGreyAndRampsStayThemselves) {
  noiseIs(5, 4);
  for (int i = 0; i < 256; ++i) {
    levels[i] = static_cast<float>(255 * std::pow(i / 255.0, 0.6));
    gains[i] = 4;
  }
  engine.frame.toneLevels = levels;
  engine.frame.toneChromaGains = gains;
  std::mt19937 random(1);
  for (const double slope : {0.0, 1.5}) {
    for (const double level : {0.0, 60.0, 255.0}) {
      for (const double sigma : {0.0, 5.0}) {
        if (slope != 0 && level != 60) continue;
        SCOPED_TRACE(testing::Message() << level << " + " << slope << " x, noise " << sigma);
        for (int n = 0; n < 6; ++n) {
          const View motion = turned(0.01, 1.004, 48, 32, 0, 1.3), steady = turned(0.02 * n, 1, 48, 32, 0.7 * n, 0);
          Truth flat;
          for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) flat.luma.at(x, y) = level + slope * x;
          }
          for (Plane* plane : {&flat.blue, &flat.red}) {
            for (int i = 0; i < plane->width * plane->height; ++i) plane->at(i % plane->width, i / plane->width) = 128;
          }
          const View still = slope == 0 ? motion : shifted(0, 1.3);
          TestFrame shown = engine.draw(filmed(flat, sigma, 0, random()), n > 0 ? &still : nullptr,
                                        slope == 0 && n % 2 == 1 ? steady : kStill);
          const auto chroma = shown.bytes.begin() + kWidth * kHeight;
          EXPECT_TRUE(std::all_of(chroma, shown.bytes.end(), [](int byte) { return byte == 128; })) << n;
          if (sigma != 0) continue;
          double worst = 0;
          for (int y = kMargin; y < kHeight - kMargin; ++y) {
            for (int x = kMargin; x < kWidth - kMargin; ++x) {
              const double given = std::round(flat.luma.at(x, y)), expected = 255 * std::pow(given / 255, 0.6);
              worst = std::max(worst, std::abs(shown.luma(x, y) - expected));
            }
          }
          EXPECT_LE(worst, slope == 0 ? 0.51 : 1.5) << n;
        }
      }
    }
  }
}

// Twenty frames of a scene, one that shows something else, and the scene again.
TEST_F(Clear, WhatComesAfterABreakShowsNothingOfWhatWasBefore) {
  constexpr double kSigma = 5;
  constexpr int kBefore = 20;
  noiseIs(kSigma, kSigma);
  struct Break {
    const char* name;
    bool isKnown;         // registration says so
    double share, added;  // of the scene, and light
    View scene;
  };
  for (const Break& each : {Break{"cut, known", true, 1, 0, shifted(500, 300)},
                            {"cut", false, 1, 0, shifted(500, 300)},
                            {"lens cap", false, 0, 4, kStill},
                            {"flash", false, 0.7, 90, kStill}}) {
    SCOPED_TRACE(each.name);
    ClearEngine own(kWidth, kHeight);
    own.frame = engine.frame;
    Truth truth = seen(each.scene), before = seen(kStill);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) truth.luma.at(x, y) = each.share * truth.luma.at(x, y) + each.added;
    }
    double settled = 0;
    for (int n = 0; n < kBefore; ++n) {
      own.draw(filmed(before, kSigma, kSigma, static_cast<unsigned>(n)), n > 0 ? &kStill : nullptr);
      if (n >= kBefore - 4) settled += squaredError(own.cells(Image::kDenoised), before.luma, 0) / 4;
    }
    const TestFrame frame = filmed(truth, kSigma, kSigma, 77);
    const TestFrame shown = own.draw(frame, each.isKnown ? nullptr : &kStill);
    const Plane blend = own.cells(Image::kBlend), given = own.cells(Image::kCells);
    double common = 0, apart = 0, worst = 0, worstBlock = 0;
    for (int row = 0; row < kHeight; row += 8) {
      for (int column = 0; column < kWidth; column += 8) {
        double blockCommon = 0, blockApart = 0;
        for (int i = 0; i < 64; ++i) {
          const int x = column + i % 8, y = row + i / 8;
          const double old = before.luma.at(x, y) - given.at(x, y);
          blockCommon += (blend.at(x, y) - given.at(x, y)) * old;
          blockApart += old * old;
          worst = std::max(worst, std::abs(blend.at(x, y) - given.at(x, y)));
        }
        common += blockCommon;
        apart += blockApart;
        worstBlock = std::max(worstBlock, blockCommon / blockApart);
      }
    }
    EXPECT_LT(common / apart, 0.002);
    EXPECT_LT(worstBlock, 0.02);
    EXPECT_LT(worst, 4) << "levels, of noise of 5";
    // What is a flash of light, or its opposite, leaves the canvas alone; else the frames after it are as those of a new scene.
    const bool isFlash = each.scene == kStill;
    for (int n = 1; n <= 20; ++n) {
      own.draw(filmed(before, kSigma, kSigma, static_cast<unsigned>(kBefore + n)), &kStill);
      const double left = squaredError(own.cells(Image::kDenoised), before.luma, 0);
      const double most = isFlash || n >= 16 ? 1.3 : n < 4 ? 10 : 3.5;
      EXPECT_LT(left, most * settled) << n;
    }
  }
}

// A street that is panned over, and a square with a pattern of its own that crosses it.
TEST_F(Clear, AShortClipGainsWhatItsPassesAreWorth) {
  constexpr double kSigma = 7;
  constexpr int kFrames = 24;
  for (const int quality : {0, 1, 2}) {
    noiseIs(kSigma, kSigma);
    engine.frame.settings.quality = quality;
    double noisy[3] = {}, left[3] = {};  // still, moving, chroma
    for (int n = 0; n < kFrames; ++n) {
      const View pose = shifted(1.37 * n, 0.61 * n), motion = shifted(1.37, 0.61);
      Truth truth = seen(pose);
      const int column = 12 + 2 * n, row = 20;
      for (int i = 0; i < 20 * 20; ++i) {
        const int x = i % 20, y = i / 20;
        if (column + x < kWidth) truth.luma.at(column + x, row + y) = (x / 4 + y / 4) % 2 == 0 ? 190 : 60;
      }
      TestFrame given = filmed(truth, kSigma, kSigma, static_cast<unsigned>(n));
      TestFrame shown = engine.draw(given, n > 0 ? &motion : nullptr);
      if (n < 8) continue;
      for (int y = kMargin; y < kHeight - kMargin; ++y) {
        for (int x = kMargin; x < kWidth - kMargin; ++x) {
          const bool moves = x >= column - 4 && x < column + 20 && y >= row && y < row + 20;
          noisy[moves] += std::pow(given.luma(x, y) - truth.luma.at(x, y), 2);
          left[moves] += std::pow(shown.luma(x, y) - truth.luma.at(x, y), 2);
          if ((x & y & 1) == 0 || moves) continue;
          noisy[2] += std::pow(given.u(x, y) - truth.blue.at(x / 2, y / 2), 2);
          left[2] += std::pow(shown.u(x, y) - truth.blue.at(x / 2, y / 2), 2);
        }
      }
    }
    const auto gain = [&](int i) { return 10 * std::log10(noisy[i] / left[i]); };
    EXPECT_GT(gain(0), 7.5) << "quality " << quality;   // 8.0
    EXPECT_GT(gain(1), 2.0) << "quality " << quality;   // 2.3
    EXPECT_GT(gain(2), 12.0) << "quality " << quality;  // 12.5 to 13.2
  }
}

TEST_F(Clear, StrengthZeroIsTheIdentity) {
  noiseIs(6, 4);
  engine.frame.settings.noiseReductionStrength = 0;
  for (int n = 0; n < 4; ++n) {
    const View motion = turned(0.01, 1.004, 48, 32, 2.3, 1.3);
    const TestFrame frame = filmed(seen(kStill), 6, 4, static_cast<unsigned>(n));
    EXPECT_EQ(engine.draw(frame, n > 0 ? &motion : nullptr).bytes, frame.bytes) << n;
  }
}

struct Path {
  const char* name;
  bool scrolls;  // the canvas follows it; else it begins anew
  View (*sceneFromFrame)(int n);
};

// The finest detail: what a picture has beside the mean of its neighbours two pixels off.
double detailKept(const Plane& picture, const Plane& truth) {
  const auto detail = [](const Plane& p, int x, int y) {
    return p.at(x, y) - 0.25 * (p.at(x - 2, y) + p.at(x + 2, y) + p.at(x, y - 2) + p.at(x, y + 2));
  };
  double common = 0, own = 0;
  for (int y = 12; y < kHeight - 12; ++y) {
    for (int x = 16; x < kWidth - 16; ++x) {
      common += detail(picture, x, y) * detail(truth, x, y);
      own += std::pow(detail(truth, x, y), 2);
    }
  }
  return common / own;
}

// A pan of 200 frames, a zoom of 30 %, a roll of 20 degrees: over the canvas' edge and over new canvases.
TEST_F(Clear, ALongMovementSoftensNothingAndLeavesNoSeam) {
  constexpr double kSigma = 3;
  constexpr int kFrames = 200;
  const Path paths[] = {
      {"pan", true, [](int n) { return shifted(1.37 * n, 0.61 * n); }},
      {"zoom", false, [](int n) { return turned(0, 1 + 0.3 * n / kFrames, kWidth / 2.0, kHeight / 2.0, 0, 0); }},
      {"roll", false, [](int n) { return turned(0.349 * n / kFrames, 1, kWidth / 2.0, kHeight / 2.0, 0.1 * n, 0); }}};
  noiseIs(kSigma, kSigma);
  for (const Path& path : paths) {
    SCOPED_TRACE(path.name);
    int anchors = 0, scrolls = 0;
    double early = 0, late = 0, earlyKept = 0, lateKept = 0, worst = 0, leastKept = 1;
    for (int n = 0; n < kFrames; ++n) {
      const View pose = path.sceneFromFrame(n);
      const View motion = composed(inverted(path.sceneFromFrame(n - 1)), pose);
      const Truth truth = seen(pose);
      engine.draw(filmed(truth, kSigma, kSigma, static_cast<unsigned>(n)), n > 0 ? &motion : nullptr);
      anchors += engine.gpu->clearFrame.anchors;
      scrolls += engine.gpu->clearFrame.scroll[0] != 0;
      if (n < 20) continue;
      const Plane blend = engine.cells(Image::kBlend);
      const double error = squaredError(blend, truth.luma, 16), kept = detailKept(blend, truth.luma);
      (n < 60 ? early : late) += error / (n < 60 ? 40 : 140);
      (n < 60 ? earlyKept : lateKept) += kept / (n < 60 ? 40 : 140);
      worst = std::max(worst, error);
      leastKept = std::min(leastKept, kept);
    }
    EXPECT_LT(late, 1.35 * early);
    EXPECT_LT(worst, 1.8 * early) << "a seam of ten levels in one column would be as much";
    EXPECT_GT(lateKept, earlyKept - 0.005);
    EXPECT_GT(leastKept, 0.97);
    // Over the border of 32 pixels, and to a new canvas each 3 %.
    EXPECT_GE(path.scrolls ? scrolls : anchors - 1, 8);
  }
}

}  // namespace
}  // namespace noxel
