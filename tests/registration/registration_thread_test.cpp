#include "registration/registration_thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

}  // namespace
}  // namespace noxel
