#include "registration/affine_fit.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <tuple>

#include "math/inverse.h"
#include "registration/point_pairs.h"

namespace noxel {
namespace {

constexpr View kHandHeld = {1.01, 0.02, 3.5, -0.015, 0.99, -2.25};

PointPairs listed(const Pairs& pairs) {
  return {pairs.data(), static_cast<int>(pairs.size())};
}

// Runs `test` on a matrix in double and one in single precision.
template <typename Test>
void inBothPrecisions(const Test& test) {
  test(AffineMatrix{});
  test(AffineMatrixF{});
}

// estimateMotion about the centre of a 320 x 180 image: on the tracker's arrays, or on matches.
struct Estimate {
  Estimate(const Pairs& pairs, int r, bool matches = false, int noiseScale = 1) {
    const auto registration = registrationOf(pairs);
    registration->noiseScale = static_cast<float>(noiseScale);
    const int count = static_cast<int>(pairs.size());
    error = matches ? estimateMotion(pairs.data(), count, motion, inverseMotion, 160, 90, r, similarity)
                    : estimateMotion(*registration, motion, inverseMotion, 160, 90, r, similarity);
  }
  double off(const View& truth) const { return cornerError(inverseMotion, truth, 320, 180); }

  float motion[9], inverseMotion[9], similarity[4];
  float error;
};

// Least squares about the mean of the points, where the normal matrix is 2 x 2.
View leastSquares(const Pairs& pairs) {
  double mean[4] = {};
  for (const _KRMatch& pair : pairs) {
    const double values[4] = {pair.sourceX, pair.sourceY, pair.targetX, pair.targetY};
    for (int i = 0; i < 4; ++i) mean[i] += values[i] / static_cast<double>(pairs.size());
  }
  double xx = 0, xy = 0, yy = 0, xu = 0, yu = 0, xv = 0, yv = 0;
  for (const _KRMatch& pair : pairs) {
    const double x = pair.sourceX - mean[0], y = pair.sourceY - mean[1];
    const double u = pair.targetX - mean[2], v = pair.targetY - mean[3];
    xx += x * x, xy += x * y, yy += y * y, xu += x * u, yu += y * u, xv += x * v, yv += y * v;
  }
  const double det = xx * yy - xy * xy;
  View m = {(yy * xu - xy * yu) / det, (xx * yu - xy * xu) / det, 0,
            (yy * xv - xy * yv) / det, (xx * yv - xy * xv) / det, 0};
  m[2] = mean[2] - m[0] * mean[0] - m[1] * mean[1];
  m[5] = mean[3] - m[3] * mean[0] - m[4] * mean[1];
  return m;
}

TEST(Inverse, OfASingularMatrixIsTheIdentity) {
  // Singular is relative to the diagonal: a small scale is not.
  constexpr double kRegular[][9] = {{1, 1, 0, 1, 1 + 1e-9, 0, 0, 0, 1}, {1e-7, 0, 5, 0, 1e-7, 6, 0, 0, 1}};
  constexpr double kSingular[][9] = {
      {}, {1, 1, 0, 1, 1 + 1e-11, 0, 0, 0, 1}, {NAN, 0, 0, 0, 1, 0, 0, 0, 1}, {INFINITY, 0, 0, 0, 1, 0, 0, 0, 1}};
  double inverse[9];
  for (const auto& matrix : kRegular) {
    EXPECT_TRUE(invert3x3(matrix, inverse));
    EXPECT_NEAR(matrix[0] * inverse[0] + matrix[1] * inverse[3], 1, 1e-6);  // 1e-9 in double precision
  }
  for (const auto& matrix : kSingular) {
    EXPECT_FALSE(invert3x3(matrix, inverse));
    for (int i = 0; i < 9; ++i) EXPECT_EQ(inverse[i], i % 4 == 0 ? 1 : 0);
  }
}

TEST(AffineFit, IsTheLeastSquaresSolution) {
  const Pairs pairs = scattered(kHandHeld, 1000, 1920, 1080, 2.0, 1);
  const View expected = leastSquares(pairs);
  // A pair of weight n counts n times.
  const Pairs few = scattered(kHandHeld, 60, 320, 180, 2.0, 2);
  Pairs repeated;
  std::vector<float> weights;
  for (const _KRMatch& pair : few) {
    weights.push_back(static_cast<float>(weights.size() % 4));
    repeated.insert(repeated.end(), static_cast<size_t>(weights.back()), pair);
  }
  inBothPrecisions([&](auto fitted) {
    ASSERT_TRUE(fitAffine(listed(pairs), &fitted));
    // Single-precision sums of a thousand products lose some 1e-6 of coordinates up to 2000. The noise moves the
    // corners ten times as far.
    EXPECT_LT(cornerError(fitted.values, expected, 1920, 1080), 0.02);
    EXPECT_GT(cornerError(fitted.values, kHandHeld, 1920, 1080), 0.1);
    ASSERT_TRUE(fitAffineWeighted(listed(few), &fitted, weights.data()));
    EXPECT_LT(cornerError(fitted.values, leastSquares(repeated), 320, 180), 0.001);  // single-precision sums
  });
}

TEST(AffineFit, ResidualsAreDistancesToTheTargets) {
  const Pairs pairs = {moved(kHandHeld, 10, 170, 3, -4), moved(kHandHeld, 310, 20, 5, 12)};
  inBothPrecisions([&](auto m) {
    std::copy_n(kHandHeld.begin(), 6, m.values);
    float residuals[2];
    affineResiduals(listed(pairs), m, residuals);
    EXPECT_NEAR(residuals[0], 5, 1e-4);  // single precision of coordinates up to 320
    EXPECT_NEAR(residuals[1], 13, 1e-4);
  });
}

TEST(Region, IsADiamondOfTruncatedDistances) {
  const auto inside = [](double x, double y) {
    return PointPairs(listed({moved(kHandHeld, x, y)}), 100, 50, 19).size() == 1;
  };
  // Truncated before they are added: 9.9 and 9.9 count as 18, 10 and 9 as 19.
  EXPECT_TRUE(inside(109.9, 59.9) && inside(90.1, 40.1) && inside(110, 58.9));
  EXPECT_TRUE(inside(81.01, 50) && inside(100, 68.9) && inside(100, 50));
  EXPECT_FALSE(inside(110, 59) || inside(90, 41) || inside(81, 50) || inside(100, 69));
  EXPECT_EQ(PointPairs(listed({moved(kStill, 3e9, std::nan(""))}), 0, 0, kEverywhere).size(), 1);
}

TEST(Region, LimitsEveryOperationToItsPairs) {
  Pairs all;
  for (const _KRMatch& pair : scattered(kHandHeld, 200, 320, 180, 1.0, 9)) {
    const bool left = pair.sourceX < 160;
    all.push_back(left ? pair : moved(kHandHeld, pair.sourceX, pair.sourceY, 500, -300));
  }
  const PointPairs inside(listed(all), 60, 90, 70);
  ASSERT_GT(inside.size(), 20);
  ASSERT_LT(inside.size(), 100);
  std::vector<float> weights;
  for (int i = 0; i < inside.size(); ++i) weights.push_back(1.0f + static_cast<float>(i % 3));

  inBothPrecisions([&](auto m) {
    auto expected = m;
    const auto same = [&] { return std::equal(m.values, m.values + 6, expected.values); };
    EXPECT_TRUE(fitAffine(listed(all), &m, 60, 90, 70) && fitAffine(inside, &expected) && same());
    EXPECT_TRUE(fitAffineWeighted(listed(all), &m, weights.data(), 60, 90, 70) &&
                fitAffineWeighted(inside, &expected, weights.data()) && same());

    std::vector<float> residuals(all.size()), expectedResiduals(all.size());
    int count = 0;
    affineResiduals(listed(all), m, residuals.data(), 60, 90, 70, &count);
    affineResiduals(inside, m, expectedResiduals.data());
    EXPECT_EQ(count, inside.size());
    EXPECT_EQ(residuals, expectedResiduals);
    EXPECT_EQ(medianResidual(listed(all), m, 60, 90, 70), median(residuals.data(), count));

    float similarity[4], expectedSimilarity[4];
    EXPECT_TRUE(refineAffine(listed(all), &m, 60, 90, 70, similarity));
    EXPECT_TRUE(refineAffine(inside, &expected, expectedSimilarity) && same());
    EXPECT_EQ(std::to_array(similarity), std::to_array(expectedSimilarity));
  });
}

TEST(AffineFit, PairsThatDetermineNothingGiveTheIdentity) {
  Pairs line, place;
  for (int i = 0; i < 50; ++i) {
    line.push_back(moved(kHandHeld, 100 + 3 * i, 90));
    place.push_back(moved(kHandHeld, 100, 90));
  }
  const Pairs notANumber(50, moved(kHandHeld, std::nan(""), 90));
  for (const Pairs& pairs : {Pairs{}, Pairs{moved(kHandHeld, 5, 6)}, line, place, notANumber}) {
    SCOPED_TRACE(testing::Message() << pairs.size() << " pairs");
    inBothPrecisions([&](auto m) {
      EXPECT_FALSE(fitAffine(listed(pairs), &m));
      EXPECT_EQ(cornerError(m.values, kStill, 320, 180), 0);
    });
    for (const bool matches : {false, true}) {
      const Estimate estimate(pairs, 80, matches);
      EXPECT_EQ(estimate.error, -1.0f);
      EXPECT_TRUE(isIdentity(estimate.motion) && isIdentity(estimate.inverseMotion));
    }
  }
  Pairs infinite = scattered(kHandHeld, 200, 320, 180, 0.0, 11);  // the sources determine a fit
  for (_KRMatch& pair : infinite) pair.targetY = std::numeric_limits<float>::infinity();
  const Estimate estimate(infinite, 80);
  EXPECT_EQ(estimate.error, -1.0f);
  EXPECT_TRUE(isIdentity(estimate.motion) && isIdentity(estimate.inverseMotion));
}

TEST(AffineFit, TheMedianIsTheLowerMiddle) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float values[] = {5, 3, 3, 9, 1, 7, 8, 2};
  const float expected[] = {0, 5, 3, 3, 3, 3, 3, 5, 3};
  for (int count = 0; count <= 8; ++count) EXPECT_EQ(median(values, count), expected[count]) << count << " values";
  const float unordered[] = {nan, 4, 1, 4, nan, nan, 2};  // NaNs come last
  for (const int count : {3, 7}) EXPECT_EQ(median(unordered, count), 4);
}

TEST(AffineFit, TwoFifthsOfOutliersMoveItByLessThanAFifthOfAPixel) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(seed);
    Pairs pairs = scattered(kHandHeld, 500, 320, 180, 0.3, seed);
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> astray(-30, 30);
    for (size_t i = 0; i < 200; ++i) {
      pairs[i].targetX += astray(random);
      pairs[i].targetY += astray(random);
    }
    std::shuffle(pairs.begin(), pairs.end(), random);
    inBothPrecisions([&](auto m) {
      ASSERT_TRUE(fitAffine(listed(pairs), &m));
      EXPECT_GT(cornerError(m.values, kHandHeld, 320, 180), 1);  // the outliers are felt
      ASSERT_TRUE(refineAffine(listed(pairs), &m, nullptr));
      EXPECT_LT(cornerError(m.values, kHandHeld, 320, 180), 0.1);
    });
  }
}

TEST(AffineFit, FindsASimilarity) {
  const double tx = 4.5, ty = -3.25, a = 0.02, b = -0.03;
  Pairs pairs = scattered({1 + a, b, tx, -b, 1 + a, ty}, 300, 320, 180, 0.0, 3);
  for (size_t i = 0; i < 100; ++i) pairs[i].targetY += static_cast<float>(20 + i % 17);
  inBothPrecisions([&](auto m) {
    float similarity[4];
    fitAffine(listed(pairs), &m);
    ASSERT_TRUE(refineAffine(listed(pairs), &m, similarity));
    // A hundred outliers of 30 pixels at a weight of 1e-4 are worth 0.001 pixels at each end of the image.
    const double expected[4] = {tx, ty, a, b};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(similarity[i], expected[i], i < 2 ? 0.005 : 2e-5) << i;
    // Pairs in one place have a translation.
    refineAffine(listed(Pairs(8, moved({1, 0, 7, 0, 1, -2}, 50, 60))), &m, similarity);
    EXPECT_EQ(std::to_array(similarity), (std::array{7.0f, -2.0f, 0.0f, 0.0f}));
  });
}

TEST(MotionEstimation, ThirtyOnePairsMayBeFittedLocally) {
  // All but one within the radius. At a weight of 1e-4 one that is 5000 pixels off still pulls at a global fit.
  for (const int count : {30, 31}) {
    Pairs pairs = scattered(kHandHeld, count - 1, 40, 40, 0.0, 4);
    for (_KRMatch& pair : pairs) pair = moved(kHandHeld, pair.sourceX + 140, pair.sourceY + 70);
    pairs.push_back(moved(kHandHeld, 10, 10, 5000, 5000));
    for (const bool matches : {false, true}) {
      const Estimate estimate(pairs, 80, matches);
      EXPECT_EQ(estimate.error >= 0.01f, count == 30) << count << " pairs, " << estimate.error;
      EXPECT_EQ(estimate.off(kHandHeld) >= 0.1, count == 30);
    }
  }
}

TEST(MotionEstimation, AFitOfThirtyPairsIsJudgedEverywhere) {
  for (const int count : {30, 31}) {
    const Pairs pairs = scattered(kHandHeld, count, 320, 180, 0.5, 7);
    const Estimate estimate(pairs, 140);
    AffineMatrixF fit;
    std::copy_n(estimate.inverseMotion, 6, fit.values);
    const float near = medianResidual(listed(pairs), fit, 160, 90, 140);
    const float everywhere = medianResidual(listed(pairs), fit, 160, 90, kEverywhere);
    ASSERT_GT(std::fabs(near - everywhere), 0.01f);
    EXPECT_NEAR(estimate.error, count == 30 ? everywhere : near, 1e-4);  // single precision of the matrix at 320
  }
}

TEST(MotionEstimation, AMedianOfOnePixelIsGoodEnough) {
  // Near the centre two points in each place part by 2 `error`: the local fit is the identity and all residuals are
  // `error`. The others move by (6, 3) and would fit the centre worse.
  for (const double error : {1.0, 1.0078125}) {
    SCOPED_TRACE(error);
    Pairs pairs;
    for (int i = 0; i < 16; ++i) {
      const int x = 152 + i % 4 * 4, y = 80 + i / 4 * 4;
      pairs.push_back(moved(kStill, x, y, error));
      pairs.push_back(moved(kStill, x, y, -error));
    }
    for (int i = 0; i < 200; ++i) pairs.push_back(moved(kStill, 2 + i % 2 * 280 + i % 20 * 2, 2 + i / 20 * 18, 6, 3));
    for (const bool matches : {false, true}) {
      const Estimate estimate(pairs, 30, matches);
      EXPECT_NEAR(estimate.error, error, 1e-5);  // single precision of the matrix at 160
      EXPECT_LT(estimate.off(kStill), 0.0005);
      // The similarity shows whether a global fit was tried: it is then that of the many.
      EXPECT_NEAR(estimate.similarity[0], error > 1.0 ? 6 : 0, error > 1.0 ? 1 : 1e-4);
      EXPECT_NEAR(estimate.similarity[1], error > 1.0 ? 3 : 0, error > 1.0 ? 1 : 1e-4);
    }
  }
}

TEST(MotionEstimation, ALocalFitIsJudgedWhereItMatters) {
  // Twenty pairs within the radius move as the whole image does, too few for a fit of their own; the forty around them
  // move as one and win the local fit, which is then judged by the twenty.
  const View object = {1, 0, 12, 0, 1, 9};
  Pairs pairs;
  for (int i = 0; i < 20; ++i) pairs.push_back(moved(kHandHeld, 155 + i % 5 * 2, 86 + i / 5 * 2));
  for (int i = 0; i < 40; ++i) pairs.push_back(moved(object, i % 2 == 0 ? 124 : 196, 82 + i % 20));
  for (const _KRMatch& pair : scattered(kHandHeld, 400, 320, 50, 0.0, 5)) pairs.push_back(pair);
  const Estimate estimate(pairs, 30);
  EXPECT_GE(estimate.error, 0.0f);
  EXPECT_LT(estimate.error, 0.05f);
  EXPECT_LT(estimate.off(kHandHeld), 0.1);  // as far as outliers may move it
}

TEST(MotionEstimation, APoorFitIsReportedAndAHopelessOneIsNotUsed) {
  // The median distance of normal errors is 1.18 deviations.
  for (const auto& [deviation, noiseScale, reported, used] :
       {std::tuple{3, 1, true, true}, {8, 1, false, true}, {8, 2, true, true}, {70, 20, false, false}}) {
    SCOPED_TRACE(deviation);
    const Estimate estimate(scattered(kHandHeld, 400, 320, 180, deviation, 6), 80, false, noiseScale);
    EXPECT_EQ(estimate.error > 0.0f, reported) << estimate.error;
    EXPECT_EQ(estimate.off(kStill) > 0, used);
  }
}

}  // namespace
}  // namespace noxel
