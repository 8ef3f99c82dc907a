// The CPU side of an engine: once per frame, motion against the previous frame, the stabilisation matrix, and exposure.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/signal.h"
#include "registration/camera_path.h"
#include "registration/exposure.h"
#include "registration/registration_state.h"

namespace noxel {

// 3 x 3, row-major, acting on pixel coordinates of the registration image (x to the right, y down).
struct MotionEstimate {
  float previousFromCurrent[9];
  float currentFromPrevious[9];
  float stabilizedFromCurrent[9];
};

// Measures one frame. `first`: the frame only primes the measurement, its result is not used. False: no valid motion.
using MotionSource = bool (*)(void* context, const LumaImage& image, bool first, MotionEstimate* estimate);

inline constexpr float kIdentity3x3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// Values of RegistrationContext::registrationResult.
inline constexpr int kRegistrationOff = -1;
inline constexpr int kRegistrationFailed = 0;
inline constexpr int kRegistrationValid = 1;

// Argument of the registration thread. Everything but the signals, the quit flag and the exposure strength belongs to one
// side at a time: to the frame path until it raises registrationRequest, to the thread until it raises registrationDone.
struct RegistrationContext {
  int quitFlag = 0;  // under quitMutex
  pthread_mutex_t quitMutex = PTHREAD_MUTEX_INITIALIZER;

  int mode = 1;
  int width = 0;  // of the registration image
  int height = 0;
  int resolutionFactor = 1;          // frame pixels per registration pixel: 1 or 2
  uint8_t* luminanceFrames[2] = {};  // the frame path fills one and selects it
  uint8_t* scratchFrame = nullptr;   // the frame path's, for smoothing
  int frameSelect = 0;

  // Off: the thread only updates the exposure. Otherwise in: on, out: the last frame's validity.
  int registrationResult = kRegistrationValid;
  int firstFrame = 1;  // 1: the next frame only primes

  // Translation in full-resolution pixels.
  float motionMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};         // current to previous frame
  float inverseMotionMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // previous to current frame
  float stabilizationMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // current frame to stabilised picture

  ExposureState exposure;
  std::atomic<int> exposureStrength = 50;  // 0..100, set by any thread, relaxed: a frame late is fine

  _KRStabilizationParameters stabilization = {};  // in pixels of the registration image
  _KROFRegistration* registration = nullptr;      // the tracker's state; null: every frame is a failed registration
  _KRMatch matches[kMaxPoints] = {};  // the kept pairs of the last frame, in pixels of the registration image
  int matchCount = 0;

  // Takes the tracker's place when it is set: known motion for tests.
  MotionSource motionSource = nullptr;
  void* motionSourceContext = nullptr;

  _KRSignal registrationRequest;
  _KRSignal registrationDone;
};

// Serves one frame per registrationRequest until the quit flag is set; its last act is to raise registrationDone. Returns
// the context.
void* registrationThreadMain(void* context);

// Measures the selected frame into the context's matrices, matches and registrationResult. A frame without valid motion,
// non-finite matrices included, has identity matrices.
void measureMotion(RegistrationContext* context);

}  // namespace noxel
