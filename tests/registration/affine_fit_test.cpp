#include "registration/affine_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "registration/point_pairs.h"

namespace noxel {
namespace {

constexpr View kHandHeld = {1.01, 0.02, 3.5, -0.015, 0.99, -2.25};

int countOf(const Pairs& pairs) {
  return static_cast<int>(pairs.size());
}

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

TEST(AffineFit, IsTheLeastSquaresSolution) {
  const Pairs pairs = scattered(kHandHeld, 1000, 1920, 1080, 2.0, 1);
  const View expected = leastSquares(pairs);
  AffineMatrix fitted;
  AffineMatrixF fittedF;
  ASSERT_TRUE(fitAffine(*registrationOf(pairs), &fitted));
  ASSERT_TRUE(fitAffine(pairs.data(), countOf(pairs), &fittedF));
  // Single-precision sums of a thousand products lose some 1e-6 of coordinates up to 2000. The noise moves the corners
  // by ten times as much.
  EXPECT_LT(cornerError(fitted.values, expected, 1920, 1080), 0.02);
  EXPECT_LT(cornerError(fittedF.values, expected, 1920, 1080), 0.02);
  EXPECT_GT(cornerError(fitted.values, kHandHeld, 1920, 1080), 0.1);
}

TEST(AffineFit, AWeightCountsAPairThatOften) {
  const Pairs pairs = scattered(kHandHeld, 60, 320, 180, 2.0, 2);
  Pairs repeated;
  std::vector<float> weights;
  for (const _KRMatch& pair : pairs) {
    weights.push_back(static_cast<float>(weights.size() % 4));
    repeated.insert(repeated.end(), static_cast<size_t>(weights.back()), pair);
  }
  const View expected = leastSquares(repeated);
  AffineMatrix fitted;
  AffineMatrixF fittedF;
  ASSERT_TRUE(fitAffineWeighted(*registrationOf(pairs), &fitted, weights.data()));
  ASSERT_TRUE(fitAffineWeighted(pairs.data(), countOf(pairs), &fittedF, weights.data()));
  EXPECT_LT(cornerError(fitted.values, expected, 320, 180), 0.001);  // single-precision sums
  EXPECT_LT(cornerError(fittedF.values, expected, 320, 180), 0.001);
}

TEST(AffineFit, ARegionLooksAtItsOwnPairsAlone) {
  // Differences are truncated before they are added: 9.9 and 9.9 count as 18, while 10 and 9 are 19.
  const struct {
    double x, y;
    bool inside;
  } kPlaces[] = {{109.9, 59.9, true}, {90.1, 40.1, true}, {110, 58.9, true}, {110, 59, false}, {90, 41, false},
                 {81.01, 50, true},   {81, 50, false},    {100, 68.9, true}, {100, 69, false}, {100, 50, true}};
  Pairs pairs, inside;
  std::vector<float> weights;
  for (const auto& place : kPlaces) {
    pairs.push_back(place.inside ? moved(kHandHeld, place.x, place.y, place.x > 100 ? 2 : -1, 0.5)
                                 : moved(kHandHeld, place.x, place.y, 500, -300));
    if (place.inside) {
      inside.push_back(pairs.back());
      weights.push_back(1.0f + static_cast<float>(inside.size()));
    }
  }
  const auto registration = registrationOf(pairs);
  AffineMatrix m, expected;
  AffineMatrixF mF, expectedF;
  const auto same = [&] {
    return std::equal(m.values, m.values + 6, expected.values) &&
           std::equal(mF.values, mF.values + 6, expectedF.values);
  };
  fitAffine(*registration, &m, 100, 50, 19);
  fitAffine(*registrationOf(inside), &expected);
  fitAffine(pairs.data(), countOf(pairs), &mF, 100, 50, 19);
  fitAffine(inside.data(), countOf(inside), &expectedF);
  EXPECT_TRUE(same());

  float residuals[10], residualsF[10], expectedResiduals[10];
  int count = 0, countF = 0;
  affineResiduals(*registration, m, residuals, 100, 50, 19, &count);
  affineResiduals(pairs.data(), countOf(pairs), mF, residualsF, 100, 50, 19, &countF);
  affineResiduals(*registrationOf(inside), m, expectedResiduals);
  ASSERT_EQ(count, countOf(inside));
  ASSERT_EQ(countF, count);
  for (int i = 0; i < count; ++i) {
    const _KRMatch& pair = inside[static_cast<size_t>(i)];
    const double dx = pair.targetX - (m(0, 0) * pair.sourceX + m(0, 1) * pair.sourceY + m(0, 2));
    const double dy = pair.targetY - (m(1, 0) * pair.sourceX + m(1, 1) * pair.sourceY + m(1, 2));
    EXPECT_NEAR(residuals[i], std::hypot(dx, dy), 1e-6);  // single precision of a few pixels
    EXPECT_EQ(residuals[i], expectedResiduals[i]);
    EXPECT_NEAR(residualsF[i], residuals[i], 1e-3);  // the matrix in single precision
  }
  EXPECT_EQ(medianResidual(*registration, m, 100, 50, 19), median(residuals, count));
  EXPECT_EQ(medianResidual(pairs.data(), countOf(pairs), mF, 100, 50, 19), median(residualsF, count));

  fitAffineWeighted(*registration, &m, weights.data(), 100, 50, 19);
  fitAffineWeighted(*registrationOf(inside), &expected, weights.data());
  fitAffineWeighted(pairs.data(), countOf(pairs), &mF, weights.data(), 100, 50, 19);
  fitAffineWeighted(inside.data(), countOf(inside), &expectedF, weights.data());
  EXPECT_TRUE(same());

  float similarity[4], expectedSimilarity[4];
  EXPECT_TRUE(refineAffine(*registration, &m, 100, 50, 19, similarity));
  EXPECT_TRUE(refineAffine(*registrationOf(inside), &expected, expectedSimilarity));
  EXPECT_TRUE(refineAffine(pairs.data(), countOf(pairs), &mF, 100, 50, 19, nullptr));
  EXPECT_TRUE(refineAffine(inside.data(), countOf(inside), &expectedF, nullptr));
  EXPECT_TRUE(same());
  EXPECT_TRUE(std::equal(similarity, similarity + 4, expectedSimilarity));
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
    AffineMatrix m;
    AffineMatrixF mF;
    EXPECT_FALSE(fitAffine(*registrationOf(pairs), &m));
    EXPECT_FALSE(fitAffine(pairs.data(), countOf(pairs), &mF));
    EXPECT_EQ(cornerError(m.values, kStill, 320, 180), 0);
    EXPECT_EQ(cornerError(mF.values, kStill, 320, 180), 0);

    float motion[9], inverse[9], similarity[4];
    EXPECT_EQ(estimateMotion(*registrationOf(pairs), motion, inverse, 160, 90, 80, similarity), -1.0f);
    EXPECT_TRUE(isIdentity(motion));
    EXPECT_TRUE(isIdentity(inverse));
    EXPECT_EQ(estimateMotion(pairs.data(), countOf(pairs), motion, inverse, 160, 90, 80, similarity), -1.0f);
    EXPECT_TRUE(isIdentity(motion));
    EXPECT_TRUE(isIdentity(inverse));
  }
}

TEST(AffineFit, TheMedianIsTheLowerMiddle) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float values[] = {5, 3, 3, 9, 1, 7, 8, 2};
  const float expected[] = {0, 5, 3, 3, 3, 3, 3, 5, 3};
  for (int count = 0; count <= 8; ++count) EXPECT_EQ(median(values, count), expected[count]) << count << " values";
  const float unordered[] = {nan, 4, 1, 4, nan, nan, 2};  // what is no number comes last
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
    AffineMatrix m;
    AffineMatrixF mF;
    ASSERT_TRUE(fitAffine(*registrationOf(pairs), &m));
    EXPECT_GT(cornerError(m.values, kHandHeld, 320, 180), 1);  // the task is there
    ASSERT_TRUE(refineAffine(*registrationOf(pairs), &m, nullptr));
    EXPECT_LT(cornerError(m.values, kHandHeld, 320, 180), 0.1);
    ASSERT_TRUE(fitAffine(pairs.data(), countOf(pairs), &mF));
    ASSERT_TRUE(refineAffine(pairs.data(), countOf(pairs), &mF, nullptr));
    // Both families are the same fit, but for the rounding of the matrix between the steps.
    const View other = {mF(0, 0), mF(0, 1), mF(0, 2), mF(1, 0), mF(1, 1), mF(1, 2)};
    EXPECT_LT(cornerError(m.values, other, 320, 180), 0.005);
  }
}

TEST(AffineFit, FindsASimilarity) {
  const double tx = 4.5, ty = -3.25, a = 0.02, b = -0.03;
  Pairs pairs = scattered({1 + a, b, tx, -b, 1 + a, ty}, 300, 320, 180, 0.0, 3);
  for (size_t i = 0; i < 100; ++i) pairs[i].targetY += static_cast<float>(20 + i % 17);
  AffineMatrix m;
  AffineMatrixF mF;
  float similarity[4], similarityF[4];
  fitAffine(*registrationOf(pairs), &m);
  fitAffine(pairs.data(), countOf(pairs), &mF);
  ASSERT_TRUE(refineAffine(*registrationOf(pairs), &m, similarity));
  ASSERT_TRUE(refineAffine(pairs.data(), countOf(pairs), &mF, similarityF));
  // What a hundred outliers of 30 pixels keep at a weight of 1e-4 is 0.001 pixels at each end of the image.
  const double expected[4] = {tx, ty, a, b};
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(similarity[i], expected[i], i < 2 ? 0.005 : 2e-5) << i;
    EXPECT_NEAR(similarityF[i], expected[i], i < 2 ? 0.005 : 2e-5) << i;
  }

  // Two in one place tell a translation, which is all there is to know.
  const Pairs place(8, moved({1, 0, 7, 0, 1, -2}, 50, 60));
  refineAffine(*registrationOf(place), &m, similarity);
  EXPECT_EQ(similarity[0], 7.0f);
  EXPECT_EQ(similarity[1], -2.0f);
  EXPECT_EQ(similarity[2], 0.0f);
  EXPECT_EQ(similarity[3], 0.0f);
}

TEST(MotionEstimation, ThirtyOnePairsMayBeFittedLocally) {
  // All but one within the radius. A weight of 1e-4 lets the one that is 5000 pixels off pull at a global fit.
  for (const int count : {30, 31}) {
    Pairs pairs = scattered(kHandHeld, count - 1, 40, 40, 0.0, 4);
    for (_KRMatch& pair : pairs) pair = moved(kHandHeld, pair.sourceX + 140, pair.sourceY + 70);
    pairs.push_back(moved(kHandHeld, 10, 10, 5000, 5000));
    float motion[9], inverse[9], similarity[4];
    const float errors[2] = {estimateMotion(*registrationOf(pairs), motion, inverse, 160, 90, 80, similarity),
                             estimateMotion(pairs.data(), count, motion, inverse, 160, 90, 80, similarity)};
    for (const float error : errors) EXPECT_EQ(error >= 0.01f, count == 30) << count << " pairs, " << error;
    EXPECT_EQ(cornerError(inverse, kHandHeld, 320, 180) >= 0.1, count == 30);
    // The two matrices undo each other.
    const View back = {motion[0], motion[1], motion[2], motion[3], motion[4], motion[5]};
    const _KRMatch there = moved(kHandHeld, 160, 90);
    if (count == 31) {
      EXPECT_NEAR(moved(back, there.targetX, there.targetY).targetX, 160, 0.01);
      EXPECT_NEAR(moved(back, there.targetX, there.targetY).targetY, 90, 0.01);
    }
  }
}

TEST(MotionEstimation, AFitOfThirtyPairsIsJudgedEverywhere) {
  for (const int count : {30, 31}) {
    const Pairs pairs = scattered(kHandHeld, count, 320, 180, 0.5, 7);
    const auto registration = registrationOf(pairs);
    float motion[9], inverse[9], similarity[4];
    const float error = estimateMotion(*registration, motion, inverse, 160, 90, 140, similarity);
    const AffineMatrix fit = {{inverse[0], inverse[1], inverse[2], inverse[3], inverse[4], inverse[5]}};
    const float near = medianResidual(*registration, fit, 160, 90, 140);
    const float everywhere = medianResidual(*registration, fit, 160, 90, 100000);
    ASSERT_GT(std::fabs(near - everywhere), 0.01f);
    EXPECT_NEAR(error, count == 30 ? everywhere : near, 1e-4);  // single precision of the matrix at 320
  }
}

TEST(MotionEstimation, AMedianOfOnePixelIsGoodEnough) {
  // Near the centre two points in each place, which part by 2 `error`: the local fit is the identity and all residuals are
  // `error`. The others move by (6, 3) and would suit the centre less.
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
      float motion[9], inverse[9], similarity[4];
      const float returned =
          matches ? estimateMotion(pairs.data(), countOf(pairs), motion, inverse, 160, 90, 30, similarity)
                  : estimateMotion(*registrationOf(pairs), motion, inverse, 160, 90, 30, similarity);
      EXPECT_NEAR(returned, error, 1e-5);  // single precision of the matrix at 160
      EXPECT_LT(cornerError(inverse, kStill, 320, 180), 0.0005);
      // The similarity tells whether a global fit was tried: it is that of the many then.
      EXPECT_NEAR(similarity[0], error > 1.0 ? 6 : 0, error > 1.0 ? 1 : 1e-4);
      EXPECT_NEAR(similarity[1], error > 1.0 ? 3 : 0, error > 1.0 ? 1 : 1e-4);
    }
  }
}

TEST(MotionEstimation, ALocalFitIsJudgedWhereItMatters) {
  // Twenty pairs within the radius move as the whole image does, but are too few for a fit of their own; the thirty around
  // them move as one and win the local fit, which is then judged by the twenty.
  const View object = {1, 0, 12, 0, 1, 9};
  Pairs pairs;
  for (int i = 0; i < 20; ++i) pairs.push_back(moved(kHandHeld, 155 + i % 5 * 2, 86 + i / 5 * 2));
  for (int i = 0; i < 40; ++i) pairs.push_back(moved(object, i % 2 == 0 ? 124 : 196, 82 + i % 20));
  for (const _KRMatch& pair : scattered(kHandHeld, 400, 320, 50, 0.0, 5)) pairs.push_back(pair);
  float motion[9], inverse[9], similarity[4];
  EXPECT_LT(estimateMotion(*registrationOf(pairs), motion, inverse, 160, 90, 30, similarity), 0.05f);
  EXPECT_GE(estimateMotion(*registrationOf(pairs), motion, inverse, 160, 90, 30, similarity), 0.0f);
  EXPECT_LT(cornerError(inverse, kHandHeld, 320, 180), 0.1);  // as outliers may move it
}

TEST(MotionEstimation, APoorFitIsReportedAndAHopelessOneIsNotUsed) {
  struct Case {
    double deviation;
    float noiseScale;
    bool reported;
    bool used;
  };
  // The median distance of normal errors is 1.18 deviations.
  for (const Case each :
       {Case{3, 1, true, true}, Case{8, 1, false, true}, Case{8, 2, true, true}, Case{70, 20, false, false}}) {
    SCOPED_TRACE(each.deviation);
    const auto registration = registrationOf(scattered(kHandHeld, 400, 320, 180, each.deviation, 6));
    registration->noiseScale = each.noiseScale;
    float motion[9], inverse[9], similarity[4];
    const float error = estimateMotion(*registration, motion, inverse, 160, 90, 80, similarity);
    EXPECT_EQ(error > 0.0f, each.reported) << error;
    EXPECT_EQ(cornerError(inverse, kStill, 320, 180) > 0, each.used);
  }
}

}  // namespace
}  // namespace noxel
