#include "tonemapping/clear_tone.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <ranges>
#include <string>
#include <vector>

namespace noxel {
namespace {

constexpr int kWidth = 320, kHeight = 180;

// BT.709's transfer, for light of any amount.
double encoded(double light) {
  return 255 * (light < 0.018 ? 4.5 * light : 1.099 * std::pow(light, 0.45) - 0.099);
}

double decoded(double level) {
  const double value = level / 255;
  return value < 0.081 ? value / 4.5 : std::pow((value + 0.099) / 1.099, 1 / 0.45);
}

struct Picture {
  int width, height;
  ptrdiff_t stride;
  std::vector<uint8_t> luma;
};

Picture pictureOf(int width, int height, const std::function<double(int, int)>& level) {
  Picture picture{width, height, width + 5, {}};
  picture.luma.assign(static_cast<size_t>(picture.stride) * height, 255);  // padding that must not be seen
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      picture.luma[static_cast<size_t>(y * picture.stride + x)] =
          static_cast<uint8_t>(std::clamp(std::lround(level(x, y)), 0l, 255l));
  return picture;
}

// A ramp of light with the white and the mean of an ordinary photograph (levels 235 and 113), less `stops` of
// exposure, with noise of `deviation` levels.
Picture photograph(double stops, double deviation = 0) {
  std::mt19937 random(3);
  std::normal_distribution<double> noise(0, 1);
  return pictureOf(kWidth, kHeight, [&](int x, int y) {
    const double light = 0.84 * std::pow((x + y / double{kHeight}) / kWidth, 2);
    return encoded(light * std::exp2(-stops)) + deviation * noise(random);
  });
}

void show(ClearTone* tone, const Picture& picture, int strength = 50, bool newSequence = false) {
  tone->update(picture.luma.data(), picture.width, picture.height, picture.stride, strength, newSequence);
}

ToneTable toneOf(const Picture& picture, int strength = 50) {
  ClearTone tone;
  show(&tone, picture, strength, true);
  return tone.table();
}

bool same(const ToneTable& a, const ToneTable& b) {
  return std::ranges::equal(a.level, b.level) && std::ranges::equal(a.chromaGain, b.chromaGain);
}

float largestStep(const ToneTable& a, const ToneTable& b) {
  float largest = 0;
  for (int i = 0; i < kLevels; ++i) largest = std::max(largest, std::abs(a.level[i] - b.level[i]));
  return largest;
}

TEST(ClearTone, GivesBackTheExposureThatAPictureLacks) {
  for (const double stops : {2.2, 3.0}) {
    for (const double deviation : {0.0, 5.0}) {
      SCOPED_TRACE(std::to_string(stops) + " stops, noise " + std::to_string(deviation));
      const ToneTable table = toneOf(photograph(stops, deviation));
      const double gain = std::exp2(stops);
      for (int level = 12; encoded(gain * decoded(level)) < 235; ++level) {
        // A sixth of a stop, from the limit on the slope and the averaged noise, is 6 % of the level and its offset.
        const double truth = encoded(gain * decoded(level));
        EXPECT_NEAR(table.level[level], truth, 0.06 * (truth + 25)) << level;
        // Red and blue beside grey, exposed for themselves: their distance from grey grows by chroma's gain. With
        // channels some way from grey the gain is a mean over the curve's slopes.
        const double far = level / 3.0;
        const double growth = (encoded(gain * decoded(level)) - encoded(gain * decoded(level - far))) / far;
        EXPECT_NEAR(table.chromaGain[level], growth, 0.15 * growth) << level;
      }
    }
  }
}

TEST(ClearTone, GivesNoMoreThanItMay) {
  const ToneTable four = toneOf(photograph(4)), five = toneOf(photograph(5));
  EXPECT_NEAR(four.level[1], 8, 0.2) << "noise is amplified 16 times at black";
  EXPECT_NEAR(five.level[30], encoded(16 * decoded(30)), 0.06 * five.level[30]);
  EXPECT_GT(four.level[255] - four.level[120], 1) << "what noise puts beyond white has no shades";
}

TEST(ClearTone, LeavesAloneWhatNeedsNothing) {
  const ToneTable identity;
  EXPECT_EQ(identity.level[37], 37);
  EXPECT_EQ(identity.chromaGain[37], 1);
  EXPECT_TRUE(same(toneOf(photograph(0)), identity)) << "well exposed";
  EXPECT_TRUE(same(toneOf(photograph(3), 0), identity)) << "strength 0";
  EXPECT_TRUE(same(toneOf(photograph(3), -9), identity));
  std::mt19937 random(5);
  for (const int level : {0, 3, 16, 128, 255}) {
    for (const int noise : {1, 4}) {
      const Picture flat =
          pictureOf(kWidth, kHeight, [&](int, int) { return level + static_cast<int>(random()) % noise; });
      EXPECT_TRUE(same(toneOf(flat), identity)) << "a covered or dazzled lens, " << level;
    }
  }
}

TEST(ClearTone, RisesFromBlackAtAnySizeAndStrength) {
  std::mt19937 random(11);
  int lifted = 0;
  for (const auto& [width, height] :
       {std::pair{1, 1}, {2, 1}, {3, 7}, {4, 4}, {5, 4}, {161, 93}, {643, 361}, {90, 1000}}) {
    for (int i = 0; i < 12; ++i) {
      const double power = 0.3 + i * 0.5, most = std::min(10 + 3.0 * (random() % 100), 255.0), least = random() % 30;
      const Picture picture = pictureOf(width, height, [&](int, int) {
        return least + (most - least) * std::pow((random() % 1000) / 1000.0, power);
      });
      ToneTable before;
      for (int strength = 0; strength <= 110; strength += 2) {
        const ToneTable table = toneOf(picture, strength);
        ASSERT_EQ(table.level[0], 0);
        ASSERT_EQ(table.chromaGain[0], 1) << "a rounded chroma must not colour black";
        ASSERT_NEAR(table.level[255], 255, 1e-3);
        for (int level = 1; level < kLevels; ++level) {
          ASSERT_GE(table.level[level], table.level[level - 1]) << level;
          ASSERT_LE(table.level[level] - table.level[level - 1], 8.01) << level;  // kMaxSlopeAtBlack
          ASSERT_TRUE(table.chromaGain[level] >= 0 && table.chromaGain[level] < 16) << level;
        }
        // At most 4 stops of strength 50, of which two units are a sixth: 8 % of a level and its offset, up to 22.
        ASSERT_LE(largestStep(table, before), 22) << strength;
        lifted += table.level[40] > 60;
        before = table;
      }
      ASSERT_TRUE(same(before, toneOf(picture, 100))) << "the strength is clamped";
    }
  }
  EXPECT_GT(lifted, 100) << "these pictures are not dark";
}

TEST(ClearTone, OpensANightAndKeepsItsLamps) {
  for (const int lampWidth : {8, 24}) {  // 0.9 and 2.7 % of the picture
    const Picture night = pictureOf(kWidth, kHeight, [&](int x, int y) {
      const bool lamp = x % 80 < lampWidth && y % 90 < 8;
      return lamp ? 200 + x % 8 * 5 : encoded(0.03 * std::pow(x / double{kWidth}, 2));
    });
    float before = 0;
    for (const int strength : {50, 100}) {
      const ToneTable table = toneOf(night, strength);
      EXPECT_GT(table.level[20], 45 + before) << "the night stays closed";
      EXPECT_LT(table.level[235], 250) << "the lamps are white";
      EXPECT_GT(table.level[235] - table.level[200], 6) << "the lamps are flat";
      EXPECT_LT(table.chromaGain[235], 1.5) << "the lamps are gaudy";
      before = table.level[20] - 40;
    }
  }
  // A lamp within 1 % of a dark picture takes less than 40 % from the rest.
  Picture lamp = photograph(3);
  const float without = toneOf(lamp).level[25];
  for (int y = 60; y < 84; ++y) std::fill_n(lamp.luma.begin() + y * lamp.stride + 100, 24, uint8_t{255});
  EXPECT_GT(toneOf(lamp).level[25], 0.6f * without);
  EXPECT_GT(toneOf(lamp).level[254], 250) << "white is grey";
  // A veil over everything, or video black at 16: without a limit, level 16 would come to 98 and 118.
  for (const double light : {0.1, 0.06}) {
    const ToneTable table = toneOf(
        pictureOf(kWidth, kHeight, [&](int x, int) { return 16 + encoded(light * std::pow(x / double{kWidth}, 2)); }));
    EXPECT_LT(table.level[16], 78) << "black is grey";
    EXPECT_GT(table.level[60], 120);
  }
}

TEST(ClearTone, MovesSlowlyWithinASequenceAndStartsAnewWithTheNext) {
  const Picture dark = photograph(3, 4), flickering = photograph(2.7, 4), other = photograph(1);
  const Picture flash = pictureOf(kWidth, kHeight, [](int, int) { return 255; });
  ClearTone tone;
  show(&tone, dark, 50, true);
  const ToneTable own = tone.table();
  const auto largestStepOver = [&](int frames, const std::function<const Picture&(int)>& picture) {
    float largest = 0;
    for (int frame = 0; frame < frames; ++frame) {
      const ToneTable before = tone.table();
      show(&tone, picture(frame));
      largest = std::max(largest, largestStep(tone.table(), before));
    }
    return largest;
  };
  const auto flashed = [&](int frame) -> const Picture& { return frame == 10 ? flash : dark; };
  const auto byMains = [&](int frame) -> const Picture& { return frame % 2 ? flickering : dark; };
  EXPECT_LT(largestStepOver(150, flashed), 3) << "one white frame";
  EXPECT_LT(largestStep(tone.table(), own), 1) << "it left a trace";
  EXPECT_LT(largestStepOver(60, byMains), 1) << "frames a third of a stop apart by turns";
  // A fortieth of two stops is at most 4 % of a level.
  EXPECT_LT(largestStepOver(200, [&](int) -> const Picture& { return other; }), 10);
  EXPECT_LT(largestStep(tone.table(), toneOf(other)), 1) << "it has not arrived";
  show(&tone, dark, 50, true);
  EXPECT_TRUE(same(tone.table(), own)) << "a cut is followed at once";
}

}  // namespace
}  // namespace noxel
