// The CPU side of an engine: per frame, the motion since the previous frame, the stabilisation matrix and the exposure.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/log.h"
#include "platform/signal.h"
#include "registration/camera_path.h"
#include "registration/exposure.h"
#include "registration/video_noise.h"
#include "registration/registration_state.h"

namespace noxel {

// 3 x 3, row-major, acting on pixel coordinates of the registration image (x to the right, y down).
struct MotionEstimate {
  float previousFromCurrent[9];
  float currentFromPrevious[9];
  float stabilizedFromCurrent[9];
};

// Measures one frame. `first`: the frame only primes the measurement; its result is ignored. False: no valid motion.
using MotionSource = bool (*)(void* context, const LumaImage& image, bool first, MotionEstimate* estimate);

inline constexpr float kIdentity3x3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// Values of RegistrationContext::registrationResult.
inline constexpr int kRegistrationOff = -1;
inline constexpr int kRegistrationFailed = 0;
inline constexpr int kRegistrationValid = 1;

// Argument of the registration thread. Apart from the signals, the quit flag and the exposure strength it has one owner
// at a time: the frame path until it raises registrationRequest, then the thread until it raises registrationDone.
struct RegistrationContext {
  int quitFlag = 0;  // under quitMutex
  pthread_mutex_t quitMutex = PTHREAD_MUTEX_INITIALIZER;

  platform::LogTarget* log = nullptr;  // of the thread

  int mode = 1;
  int width = 0;  // of the registration image
  int height = 0;
  int resolutionFactor = 1;          // frame pixels per registration pixel: 1 or 2
  uint8_t* luminanceFrames[2] = {};  // the frame path fills one and selects it
  uint8_t* scratchFrame = nullptr;   // scratch of the frame path, for smoothing
  int frameSelect = 0;

  // kRegistrationOff: the thread only updates the exposure. Otherwise written per frame: failed or valid.
  int registrationResult = kRegistrationValid;
  int firstFrame = 1;  // 1: the next frame only primes the tracker
  // True: a lost frame's stabilisation matrix eases towards the identity, and the camera path goes on.
  bool easesLosses = false;
  std::atomic<int> restartsPath = 0;  // 1, set by any thread, relaxed: the next frame's camera path starts from rest

  // Translations in full-resolution pixels.
  float motionMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};         // current to previous frame
  float inverseMotionMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // previous to current frame
  float stabilizationMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // current frame to stabilised picture

  ExposureState exposure;
  std::atomic<int> exposureStrength = 50;  // 0..100, set by any thread, relaxed: a frame late is fine

  _KRStabilizationParameters stabilization = {};  // in pixels of the registration image
  _KROFRegistration* registration = nullptr;      // tracker state; null: every registration fails
  _KRMatch matches[kMaxPoints] = {};  // the kept pairs of the last frame, in pixels of the registration image
  int matchCount = 0;

  double busyMs = 0;  // with the last frame

  // Measured only while measuresNoise is 1, from `fullLuma` and `fullChroma`: the frame's own, at frame size, which the
  // frame path lends until registrationDone. The meter is allocated before measuresNoise is set, acquire/release.
  VideoNoise noise;
  std::atomic<int> measuresNoise = 0;
  const uint8_t* fullLuma = nullptr;
  ChromaPlanes fullChroma;

  // Replaces the tracker when set: known motion for tests.
  MotionSource motionSource = nullptr;
  void* motionSourceContext = nullptr;

  _KRSignal registrationRequest;
  _KRSignal registrationDone;
};

// Thread body: serves one frame per registrationRequest until the quit flag is set, then raises registrationDone a last
// time. Returns the context.
void* registrationThreadMain(void* context);

// Measures the selected frame into the context's matrices, matches and registrationResult. Without valid motion, or
// when a matrix is not finite, all three matrices are the identity; with easesLosses, the tracker's stabilisation is kept.
void measureMotion(RegistrationContext* context);

// The noise of the frame at `fullLuma`, `fullChroma` along that motion. begin: without regard to the frames before.
void measureNoise(RegistrationContext* context, bool begin);

}  // namespace noxel
