#include "registration/registration_thread.h"

#include <chrono>
#include <cmath>
#include <cstring>

#include "registration/matrix.h"
#include "registration/register_frame.h"

namespace noxel {
namespace {

LumaImage selectedImage(const RegistrationContext& context) {
  return {context.width, context.height, context.luminanceFrames[context.frameSelect != 0 ? 1 : 0]};
}

bool isFinite(const float (&matrix)[9]) {
  for (const float value : matrix) {
    if (!std::isfinite(value)) return false;
  }
  return true;
}

// From pixels of the registration image to pixels of the frame.
void storeMatrix(float (&to)[9], const float (&from)[9], int resolutionFactor) {
  std::memcpy(to, from, sizeof(to));
  to[2] *= static_cast<float>(resolutionFactor);
  to[5] *= static_cast<float>(resolutionFactor);
}

bool measureBySource(RegistrationContext* context, MotionEstimate* estimate) {
  const bool first = context->firstFrame == 1;
  return context->motionSource(context->motionSourceContext, selectedImage(*context), first, estimate) && !first;
}

bool measureByTracker(RegistrationContext* context, MotionEstimate* estimate) {
  _KRStabilizationParameters* const stabilization = &context->stabilization;
  int valid = 0;
  const auto measure = context->easesLosses ? registerFrameCoasting : registerFrame;
  measure(selectedImage(*context).pixels, estimate->previousFromCurrent, estimate->currentFromPrevious,
          context->matches, &valid, context->registration, &context->firstFrame, stabilization);
  context->matchCount = context->registration->matchedCount;
  std::memcpy(estimate->stabilizedFromCurrent, stabilization->stabilizationMatrix,
              sizeof(stabilization->stabilizationMatrix));
  return valid == 1;
}

bool quitRequested(RegistrationContext* context) {
  Lock lock(context->quitMutex);
  return context->quitFlag != 0;
}

}  // namespace

void measureMotion(RegistrationContext* context) {
  MotionEstimate estimate;
  setIdentity(estimate.previousFromCurrent);
  setIdentity(estimate.currentFromPrevious);
  setIdentity(estimate.stabilizedFromCurrent);

  bool valid = false;
  context->matchCount = 0;
  if (context->motionSource != nullptr) {
    valid = measureBySource(context, &estimate);
  } else if (context->registration != nullptr) {
    valid = measureByTracker(context, &estimate);
  }
  context->firstFrame = 0;
  valid = valid && isFinite(estimate.previousFromCurrent) && isFinite(estimate.currentFromPrevious) &&
          isFinite(estimate.stabilizedFromCurrent);

  if (context->restartsPath.exchange(0, std::memory_order_relaxed) == 1) {
    // Does not allocate: the path was set up with the thread.
    (void)initStabilization(&context->stabilization, 1, 1, context->width, context->height);
    setIdentity(estimate.stabilizedFromCurrent);
  }
  context->registrationResult = valid ? kRegistrationValid : kRegistrationFailed;
  const int factor = context->resolutionFactor;
  storeMatrix(context->motionMatrix, valid ? estimate.previousFromCurrent : kIdentity3x3, factor);
  storeMatrix(context->inverseMotionMatrix, valid ? estimate.currentFromPrevious : kIdentity3x3, factor);
  const bool coasts =
      context->easesLosses && context->motionSource == nullptr && isFinite(estimate.stabilizedFromCurrent);
  storeMatrix(context->stabilizationMatrix, valid || coasts ? estimate.stabilizedFromCurrent : kIdentity3x3, factor);
}

void measureNoise(RegistrationContext* context, bool begin) {
  if (begin) context->noise.restart();
  const bool valid = context->registrationResult == kRegistrationValid;
  context->noise.measure(context->fullLuma, valid ? context->motionMatrix : nullptr, context->fullChroma);
}

void* registrationThreadMain(void* argument) {
  auto* context = static_cast<RegistrationContext*>(argument);
  const platform::LogScope log(context->log);
  bool measuredNoise = false;  // of the frame before
  for (;;) {
    context->registrationRequest.wait();
    if (quitRequested(context)) break;
    const auto start = std::chrono::steady_clock::now();
    const bool first = context->firstFrame == 1;
    if (context->registrationResult != kRegistrationOff) {
      measureMotion(context);
    } else {
      // Stale otherwise: an older frame's motion.
      storeMatrix(context->motionMatrix, kIdentity3x3, 1);
      storeMatrix(context->inverseMotionMatrix, kIdentity3x3, 1);
    }
    const bool measuresNoise = context->measuresNoise.load(std::memory_order_acquire) == 1;
    if (measuresNoise) measureNoise(context, first || !measuredNoise);
    measuredNoise = measuresNoise;
    updateExposure(&context->exposure, selectedImage(*context), context->mode,
                   context->exposureStrength.load(std::memory_order_relaxed));
    context->busyMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    context->registrationDone.raise();
  }
  context->registrationDone.raise();
  return context;
}

}  // namespace noxel
