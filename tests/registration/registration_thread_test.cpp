#include "registration/registration_thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "support/waves.h"

namespace noxel {
namespace {

constexpr int kWidth = 8;
constexpr int kHeight = 6;

constexpr MotionEstimate kMotion = {{1.01f, -0.02f, 2.25f, 0.03f, 0.99f, -0.75f, 0, 0, 1},
                                    {0.98f, 0.02f, -2.2f, -0.03f, 1.01f, 0.8f, 0, 0, 1},
                                    {1.0f, 0.01f, 5.0f, -0.01f, 1.0f, -3.5f, 0, 0, 1}};
constexpr MotionEstimate kNoMotion = {
    {1, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0, 0, 0, 1, 0, 0, 0, 1}};

// Returns a given answer and records the calls.
struct ScriptedMotion {
  MotionEstimate answer = kMotion;
  bool valid = true;
  int calls = 0;
  bool lastFirst = false;

  static bool measure(void* context, const LumaImage&, bool first, MotionEstimate* estimate) {
    auto* self = static_cast<ScriptedMotion*>(context);
    ++self->calls;
    self->lastFirst = first;
    *estimate = self->answer;
    return self->valid;
  }
};

void expectMatrix(const float (&actual)[9], const float (&expected)[9]) {
  EXPECT_EQ(std::to_array(actual), std::to_array(expected));
}

// The thread, and the frame path's side of the hand-off.
class RegistrationThread : public ::testing::Test {
 protected:
  void SetUp() override {
    context.width = kWidth;
    context.height = kHeight;
    context.motionSource = ScriptedMotion::measure;
    context.motionSourceContext = &motion;
    for (int i = 0; i < 2; ++i) context.luminanceFrames[i] = images_[i].data();
    ASSERT_EQ(pthread_create(&thread_, nullptr, registrationThreadMain, &context), 0);
    running_ = true;
  }

  void TearDown() override {
    if (running_) quit();
  }
  void* quit() {
    {
      Lock lock(context.quitMutex);
      context.quitFlag = 1;
    }
    context.registrationRequest.raise();
    context.registrationDone.wait();
    void* result = nullptr;
    pthread_join(thread_, &result);
    running_ = false;
    return result;
  }

  void frame(uint8_t level = 100) {
    context.frameSelect = 1 - context.frameSelect;
    std::fill(images_[context.frameSelect].begin(), images_[context.frameSelect].end(), level);
    context.registrationRequest.raise();
    context.registrationDone.wait();
  }

  void expectMotion(bool valid) const {
    const MotionEstimate& expected = valid ? kMotion : kNoMotion;
    EXPECT_EQ(context.registrationResult, valid ? kRegistrationValid : kRegistrationFailed);
    expectMatrix(context.motionMatrix, expected.previousFromCurrent);
    expectMatrix(context.inverseMotionMatrix, expected.currentFromPrevious);
    expectMatrix(context.stabilizationMatrix, expected.stabilizedFromCurrent);
  }

  ScriptedMotion motion;
  RegistrationContext context;

 private:
  std::vector<uint8_t> images_[2] = {std::vector<uint8_t>(kWidth * kHeight), std::vector<uint8_t>(kWidth* kHeight)};
  pthread_t thread_ = {};
  bool running_ = false;
};

TEST_F(RegistrationThread, TheFirstFrameOfASequenceOnlyPrimes) {
  for (int sequence = 0; sequence < 2; ++sequence) {
    context.firstFrame = 1;
    frame();
    EXPECT_TRUE(motion.lastFirst);
    expectMotion(false);
    frame();
    EXPECT_FALSE(motion.lastFirst);
    expectMotion(true);
  }
}

TEST_F(RegistrationThread, MotionThatIsNotFiniteIsNoMotion) {
  frame();
  for (int matrix = 0; matrix < 3; ++matrix) {
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
      SCOPED_TRACE(testing::Message() << "matrix " << matrix << ", " << bad);
      float(*const matrices[3])[9] = {&motion.answer.previousFromCurrent, &motion.answer.currentFromPrevious,
                                      &motion.answer.stabilizedFromCurrent};
      (*matrices[matrix])[4 * matrix] = bad;
      frame();
      expectMotion(false);
      motion.answer = kMotion;
      frame();
      expectMotion(true);
    }
  }
}

TEST_F(RegistrationThread, WithoutAMeasurementThereIsNoMotion) {
  frame();
  frame();
  motion.valid = false;
  frame();
  expectMotion(false);
  EXPECT_FALSE(motion.lastFirst);
  motion.valid = true;
  frame();
  context.motionSource = nullptr;  // and no tracker
  frame();
  expectMotion(false);
}

TEST_F(RegistrationThread, SwitchedOffItOnlyMeasuresExposure) {
  frame();
  frame();
  const int callsBefore = motion.calls;
  ExposureState expected = context.exposure;
  context.registrationResult = kRegistrationOff;
  context.exposureStrength.store(90, std::memory_order_relaxed);
  frame(40);
  EXPECT_EQ(motion.calls, callsBefore);
  EXPECT_EQ(context.registrationResult, kRegistrationOff);
  expectMatrix(context.motionMatrix, kIdentity3x3);
  expectMatrix(context.inverseMotionMatrix, kIdentity3x3);

  updateExposure(&expected, {kWidth, kHeight, context.luminanceFrames[context.frameSelect]}, context.mode, 90);
  EXPECT_EQ(context.exposure.smoothedGain, expected.smoothedGain);
  EXPECT_EQ(context.exposure.smoothedGamma, expected.smoothedGamma);
  EXPECT_EQ(context.exposure.maxLevel, 40);
}

TEST_F(RegistrationThread, QuitReleasesTheWaiterAndMeasuresNothing) {
  frame();
  EXPECT_EQ(quit(), &context);
  EXPECT_EQ(motion.calls, 1);
}

// The tracker at half resolution on a pan of (1.5, -1) registration pixels per frame.
TEST(MotionMeasurement, TranslatesInFramePixelsAndKeepsThePathInItsOwn) {
  constexpr int kSide = 160;
  RegistrationContext context;
  context.width = context.height = kSide;
  context.resolutionFactor = 2;
  ASSERT_EQ(createRegistration(kSide, kSide, 1, &context.registration), 0);
  ASSERT_TRUE(initStabilization(&context.stabilization, 1, 1, kSide, kSide));
  for (unsigned frame = 0; frame < 5; ++frame) {
    std::vector<uint8_t> pixels = Waves(3, 8).seen(kSide, kSide, shifted(-1.5 * frame, frame), 2, frame);
    context.luminanceFrames[0] = pixels.data();
    context.firstFrame = frame == 0 || frame == 4;
    measureMotion(&context);
    EXPECT_EQ(context.firstFrame, 0);
    if (frame == 3) {
      EXPECT_EQ(context.registrationResult, kRegistrationValid);
      // The tracker is right to a tenth of a pixel, twice that in the frame.
      EXPECT_NEAR(context.inverseMotionMatrix[2], 2 * 1.5, 0.2);
      EXPECT_NEAR(context.inverseMotionMatrix[5], 2 * -1.0, 0.2);
      EXPECT_NEAR(context.motionMatrix[2], 2 * -1.5, 0.2);
      EXPECT_NEAR(context.motionMatrix[5], 2 * 1.0, 0.2);
      EXPECT_GE(context.matchCount, 5);
      const float(&path)[9] = context.stabilization.stabilizationMatrix;
      EXPECT_LT(path[2], 0.0f);  // back to where the picture was
      const float inFrame[9] = {path[0], path[1], 2 * path[2], path[3], path[4], 2 * path[5], 0, 0, 1};
      expectMatrix(context.stabilizationMatrix, inFrame);
    }
  }
  // A first frame has no motion and keeps the path.
  EXPECT_EQ(context.registrationResult, kRegistrationFailed);
  EXPECT_EQ(context.matchCount, 0);
  expectMatrix(context.motionMatrix, kIdentity3x3);
  expectMatrix(context.stabilizationMatrix, kIdentity3x3);
  EXPECT_NEAR(context.stabilization.rawPath[0], 3 * 1.5, 0.3);
  releaseRegistration(&context.registration);
  releaseStabilization(&context.stabilization, 1, 1);
}

// A tracker of its own, fed frame by frame.
struct Measured : RegistrationContext {
  static constexpr int kSide = 160;
  explicit Measured(bool easing) {
    width = height = kSide;
    easesLosses = easing;
    EXPECT_EQ(createRegistration(kSide, kSide, 1, &registration), 0);
    EXPECT_TRUE(initStabilization(&stabilization, 1, 1, kSide, kSide));
  }
  ~Measured() {
    releaseRegistration(&registration);
    releaseStabilization(&stabilization, 1, 1);
  }
  Measured(const Measured&) = delete;
  Measured& operator=(const Measured&) = delete;

  View measure(std::vector<uint8_t> pixels) {
    luminanceFrames[0] = pixels.data();
    measureMotion(this);
    View matrix;
    std::copy_n(stabilizationMatrix, 6, matrix.begin());
    return matrix;
  }
};

// A shaken pan of 0.9 pixels a frame, with an offset of the steadied picture close to its limit of 4.8 pixels.
View shakenPan(int frame) {
  return shifted(-0.9 * frame - 1.5 * std::sin(0.5 * frame), 1.5 * std::cos(0.4 * frame));
}

double change(const View& from, const View& to) {
  return cornerError(to.data(), from, Measured::kSide, Measured::kSide);
}

TEST(EasedLosses, LeaveTheSteadiedPictureWithoutAJump) {
  const Waves scene(3, 8), strange(77, 8);
  Measured easing(true), plain(false);
  View eased = kStill, restarted = kStill;
  double largestEased = 0, largestRestarted = 0;
  int lost = 0;
  for (int n = 0; n < 65; ++n) {
    const bool lose = n >= 23 && n % 10 == 3;
    const auto pixels = (lose ? strange : scene).seen(Measured::kSide, Measured::kSide, shakenPan(n));
    const View before = eased, beforeRestart = restarted;
    eased = easing.measure(pixels);
    restarted = plain.measure(pixels);
    EXPECT_EQ(easing.registrationResult, plain.registrationResult) << n;
    EXPECT_EQ(std::to_array(easing.motionMatrix), std::to_array(plain.motionMatrix)) << n;
    if (n < 23) {
      EXPECT_EQ(eased, restarted) << n;
    }
    if (n == 0 || easing.registrationResult == kRegistrationValid) continue;
    ++lost;
    EXPECT_EQ(restarted, kStill);
    largestRestarted = std::max(largestRestarted, change(beforeRestart, restarted));
    largestEased = std::max(largestEased, change(before, eased));
  }
  EXPECT_EQ(lost, 10) << "each strange frame, and the one after it";
  EXPECT_GT(largestRestarted, 3.0);
  // A twentieth of the largest shift, 3 % of each side, and 3/20 of the little roll and scale that is measured.
  EXPECT_LT(largestEased, 0.05 * 0.03 * Measured::kSide * std::sqrt(2.0) + 0.1);

  const std::vector<uint8_t> strangers[2] = {strange.seen(Measured::kSide, Measured::kSide, kStill),
                                             scene.seen(Measured::kSide, Measured::kSide, shifted(500, 500))};
  for (size_t n = 0; n < 150; ++n) {
    const View before = eased;
    eased = easing.measure(strangers[n % 2]);
    EXPECT_LT(change(before, eased), 0.05 * 0.03 * Measured::kSide * std::sqrt(2.0) + 0.1) << n;
  }
  EXPECT_LT(change(kStill, eased), 0.01);
}

TEST(EasedLosses, ABreakStartsFromRestAtOnce) {
  const Waves scene(3, 8);
  const auto frame = [&](int n) { return scene.seen(Measured::kSide, Measured::kSide, shakenPan(n)); };
  Measured used(true), fresh(true);
  View last = kStill;
  for (int n = 0; n < 20; ++n) last = used.measure(frame(n));
  ASSERT_GT(change(kStill, last), 1.0);
  used.firstFrame = 1;
  for (int n = 40; n < 45; ++n) {
    last = used.measure(frame(n));
    EXPECT_EQ(last, fresh.measure(frame(n))) << n;
    if (n == 40) {
      EXPECT_EQ(last, kStill);
    }
  }
}

}  // namespace
}  // namespace noxel
