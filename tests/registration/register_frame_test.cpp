#include "registration/register_frame.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "registration/point_pairs.h"

namespace noxel {
namespace {

constexpr int kWidth = 320, kHeight = 180;
constexpr View kCalm = {1.01, 0.02, 2.5, -0.015, 0.99, -1.5};

// fitFrame on given pairs, as if the tracker had found them.
class FitFrame : public ::testing::Test {
 protected:
  FitFrame() { EXPECT_TRUE(initStabilization(records, kColumns, kRows, kWidth, kHeight)); }
  ~FitFrame() override { releaseStabilization(records, kColumns, kRows); }

  bool fit(const Pairs& pairs) {
    registration = registrationOf(pairs, kWidth, kHeight);
    return fitFrame(motion, inverseMotion, matches, registration.get(), records);
  }
  bool fitGrid(const Pairs& pairs, int columns, int rows) {
    registration = registrationOf(pairs, kWidth, kHeight);
    return fitFrameGrid(motion, inverseMotion, matches, registration.get(), records, columns, rows);
  }
  bool isAtRest(const _KRStabilizationParameters& record) const {
    const float rest[kPathValues] = {0, 0, 0, 1};
    return std::equal(rest, rest + kPathValues, record.rawPath) &&
           std::equal(rest, rest + kPathValues, record.smoothedPath) && isIdentity(record.stabilizationMatrix);
  }

  static constexpr int kColumns = 3, kRows = 2;
  std::unique_ptr<_KROFRegistration> registration;
  _KRStabilizationParameters records[kColumns * kRows] = {};
  _KRMatch matches[kMaxPoints];
  float motion[9], inverseMotion[9];
};

// Pairs whose sums are exact in single precision, so that the fit is too. `back`: previous from current; the targets
// are 10 pixels apart in a square around the origin.
Pairs exactly(const View& back) {
  Pairs pairs;
  for (int i = -2; i <= 2; ++i) {
    for (int k = -2; k <= 2; ++k) {
      const _KRMatch reversed = moved(back, 10 * i, 10 * k);
      pairs.push_back({reversed.targetX, reversed.targetY, reversed.sourceX, reversed.sourceY});
    }
  }
  return pairs;
}

// The corners of the square, and its centre.
Pairs firstOf(size_t count, const Pairs& square) {
  const Pairs chosen = {square[0], square[4], square[20], square[24], square[12]};
  return Pairs(chosen.begin(), chosen.begin() + static_cast<ptrdiff_t>(count));
}

TEST_F(FitFrame, PruningKeepsTheBetterHalfWithinLimits) {
  // Limits of the error for 320 + 180 pixels: 0.25 and 1.
  const struct {
    float scores[3], errors[3];
    std::vector<int> kept;
  } kCases[] = {
      {{0.7f, 0.8f, 0.85f}, {0.5f, 0.6f, 0.4f}, {2}},          // the medians: 0.8 and 0.5
      {{0.8f, 0.81f, 0.7f}, {0.5f, 0.4f, 0.6f}, {0, 1}},       // both exactly at the median
      {{0.99f, 0.9f, 0.95f}, {0.1f, 0.25f, 0.2f}, {0, 1, 2}},  // a score of 0.9 and an error of 0.25 always suffice
      {{0.9f, 0.899f, 0.99f}, {0.251f, 0.2f, 0.1f}, {2}},
      {{0.65f, 0.6f, 0.64f}, {2.0f, 1.5f, 1.6f}, {}},  // a score of 0.65 and an error of 1 are required
      {{0.65f, 0.6f, 0.64f}, {1.0f, 1.5f, 1.6f}, {0}},
      {{NAN, 0.95f, 0.95f}, {0.1f, NAN, 0.1f}, {2}},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(testing::Message() << "case " << &each - kCases);
    registration = registrationOf(Pairs(3), kWidth, kHeight);
    std::copy_n(each.scores, 3, registration->scores);
    std::copy_n(each.errors, 3, registration->errors);
    pruneMatches(registration.get());
    EXPECT_EQ(std::vector<int>(registration->indices, registration->indices + registration->pointCount), each.kept);
  }
  registration = registrationOf(Pairs(2), kWidth, kHeight);  // the lower medians are reported
  registration->scores[0] = 0.75f;
  registration->errors[0] = 0.5f;
  registration->errors[1] = 0.4f;
  pruneMatches(registration.get());
  EXPECT_EQ(registration->medianScore, 0.75f);
  EXPECT_EQ(registration->medianError, 0.4f);
}

TEST_F(FitFrame, PrunedPairsAreNoMatches) {
  const Pairs pairs = scattered(kCalm, 9, kWidth, kHeight, 0.0, 9);
  registration = registrationOf(pairs, kWidth, kHeight);
  for (const int pruned : {0, 2, 3, 5, 6}) registration->scores[pruned] = 0.5f;
  EXPECT_FALSE(fitFrame(motion, inverseMotion, matches, registration.get(), records));
  ASSERT_EQ(registration->matchedCount, 4);
  EXPECT_EQ(registration->trackedCount, 9);
  const int kept[4] = {1, 4, 7, 8};
  for (size_t i = 0; i < 4; ++i) {
    const _KRMatch& pair = pairs[static_cast<size_t>(kept[i])];
    EXPECT_EQ(registration->identifiers[i], 1000 + kept[i]);
    EXPECT_EQ(registration->displacements[i].x, pair.targetX - pair.sourceX);
    EXPECT_EQ((std::array{matches[i].sourceX, matches[i].sourceY, matches[i].targetX, matches[i].targetY}),
              (std::array{pair.sourceX, pair.sourceY, pair.targetX, pair.targetY}));
  }
}

TEST_F(FitFrame, FourMatchesResetThePath) {
  constexpr View kBack = {1, 0.1, 1, -0.1, 1, 2};
  ASSERT_TRUE(fit(firstOf(5, exactly(kBack))));
  EXPECT_FALSE(isAtRest(records[0]));
  // The inverse; the determinant is 1.01.
  const double undone[9] = {1 / 1.01, -0.1 / 1.01, -0.8 / 1.01, 0.1 / 1.01, 1 / 1.01, -2.1 / 1.01, 0, 0, 1};
  for (int i = 0; i < 9; ++i) EXPECT_FLOAT_EQ(inverseMotion[i], static_cast<float>(undone[i])) << i;
  EXPECT_FALSE(fit(firstOf(4, exactly(kBack))));
  EXPECT_TRUE(isAtRest(records[0]));
  EXPECT_TRUE(isIdentity(motion) && isIdentity(inverseMotion));
}

TEST_F(FitFrame, AMotionAtTheLimitsIsValidAndOneBeyondResetsThePath) {
  constexpr View kBase = {1, 0.1, 1, -0.1, 1, 2};
  const struct {
    size_t entry;
    double limit, beyond;
  } kLimits[] = {{0, 1.7, 1.7001},   {0, 0.3, 0.2999}, {4, 1.7, 1.7001},   {4, 0.3, 0.2999}, {1, 0.4, 0.4001},
                 {1, -0.4, -0.4001}, {3, 0.4, 0.4001}, {3, -0.4, -0.4001}, {2, 50, 50.01},   {2, -50, -50.01},
                 {5, 50, 50.01},     {5, -50, -50.01}, {1, 0.1, 0},        {3, -0.1, 0}};
  for (const auto& each : kLimits) {
    SCOPED_TRACE(each.beyond);
    View back = kBase;
    back[each.entry] = each.limit;
    EXPECT_TRUE(fit(exactly(back)));
    for (size_t i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(motion[i], static_cast<float>(back[i])) << i;
    EXPECT_FALSE(isAtRest(records[0]));
    back[each.entry] = each.beyond;
    EXPECT_FALSE(fit(exactly(back)));
    EXPECT_TRUE(isAtRest(records[0]));
  }
}

TEST_F(FitFrame, APathOutOfBoundsRestartsAndTheMotionStaysValid) {
  for (int frame = 0; frame < 30; ++frame) {
    ASSERT_TRUE(fit(exactly({0.7, 0.001, 0, -0.001, 0.7, 0})));
    ASSERT_GE(records[0].rawPath[3], 1e-3f);
    ASSERT_LE(records[0].rawPath[3], 1e3f);
  }
  // 0.7^-19 is 876, 0.7^-20 is 1253: the twentieth frame resets it to 1, and the other ten go on from there.
  EXPECT_NEAR(records[0].rawPath[3], std::pow(0.7, -10), 0.01);
}

TEST_F(FitFrame, EachCellOfAGridFollowsItsOwnPart) {
  // The left part turns and moves, the right part moves the other way, with a gap between them.
  const View left = {1.01, 0.02, 3, -0.02, 1.01, 1}, right = {1.01, 0.001, -6, -0.001, 1.01, -2};
  Pairs pairs;
  for (const _KRMatch& pair : scattered(kStill, 900, kWidth, kHeight, 0.0, 12)) {
    if (pair.sourceX < 150 || pair.sourceX > 170) {
      pairs.push_back(moved(pair.sourceX < 150 ? left : right, pair.sourceX, pair.sourceY));
    }
  }
  ASSERT_TRUE(fitGrid(pairs, 3, 2));
  for (const int row : {0, 3}) {
    const float(&path)[kPathValues] = records[row].rawPath;
    EXPECT_NEAR(path[0], 3, 0.01);
    EXPECT_NEAR(path[1], 1, 0.01);
    EXPECT_NEAR(path[2], std::atan(0.02 / 1.01), 1e-4);
    EXPECT_NEAR(path[3], std::hypot(1.01, 0.02), 2e-5);
    EXPECT_NEAR(records[row + 2].rawPath[0], -6, 0.05);
    EXPECT_NEAR(records[row + 2].rawPath[3], 1.01, 1e-4);
  }
  EXPECT_NEAR(inverseMotion[2], -6, 0.05) << "the last cell's";
}

TEST_F(FitFrame, CellsFollowTheBlocksThatMoveOnTheirOwn) {
  // All points lie on one motion, most of them in the right half; the field says that this moves by (-8, 3) beside it.
  const View common = {1.002, 0.004, 4, -0.004, 1.002, -1};
  constexpr int kFieldColumns = kWidth / kMotionBlockSide, kFieldRows = (kHeight + 7) / kMotionBlockSide;
  std::vector<BlockMotion> blocks(kFieldColumns * kFieldRows);
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (i % kFieldColumns >= kFieldColumns / 2) blocks[i] = {-8, 3, 0.9f};
  }
  Pairs pairs;
  for (const _KRMatch& pair : scattered(kStill, 500, kWidth / 2, kHeight, 0.0, 12))
    pairs.push_back(moved(common, pair.sourceX + kWidth / 2, pair.sourceY));
  for (const _KRMatch& pair : scattered(common, 300, kWidth, kHeight, 0.0, 13)) pairs.push_back(pair);
  registration = registrationOf(pairs, kWidth, kHeight);
  ASSERT_TRUE(fitFrameGrid(motion, inverseMotion, matches, registration.get(), records, kColumns, kRows,
                           {kFieldColumns, kFieldRows, blocks.data()}));
  for (const int row : {0, 3}) {
    EXPECT_NEAR(records[row].rawPath[0], 4, 0.01);
    EXPECT_NEAR(records[row].rawPath[1], -1, 0.01);
    EXPECT_NEAR(records[row + 2].rawPath[0], 4 - 8, 0.01);
    EXPECT_NEAR(records[row + 2].rawPath[1], -1 + 3, 0.01);
    EXPECT_NEAR(records[row + 2].rawPath[2], std::atan(0.004 / 1.002), 1e-4);
  }
  EXPECT_EQ(registration->matchedCount, 800) << "on the common motion, as the matches";
}

TEST_F(FitFrame, TooFewMatchesResetEveryCellOfAGrid) {
  const Pairs pairs = scattered(kCalm, 400, kWidth, kHeight, 0.0, 12);
  // Cell centres are spaced by side / (count - 1): one column or row must not divide by zero.
  for (const auto& [columns, rows] : {std::pair{1, 1}, {1, 2}, {2, 1}}) {
    ASSERT_TRUE(fitGrid(pairs, columns, rows));
    EXPECT_NEAR(inverseMotion[2], kCalm[2], 0.01);
  }
  ASSERT_TRUE(fitGrid(pairs, kColumns, kRows));
  for (const auto& record : records) EXPECT_FALSE(isAtRest(record));
  EXPECT_FALSE(fitGrid(Pairs(pairs.begin(), pairs.begin() + 4), kColumns, kRows));
  for (const auto& record : records) EXPECT_TRUE(isAtRest(record));
  EXPECT_FALSE(fitGrid(exactly({1, 0, 2, 0, 1, 2}), 1, 1)) << "a zero coefficient";
}

}  // namespace
}  // namespace noxel
