// The engine as our own tools and tests drive it: the functions behind the C interface, with nothing folded away.
#pragma once

#include "noxel/noxel.h"

namespace noxel {

// Engine modes. The C interface always makes kModeEnhance.
enum EngineMode : int {
  kModeEnhance = 1,
  kModeStabilize = 2,        // stabilisation on from the start
  kModeNeutralExposure = 3,  // as kModeEnhance with gamma and gain held at 1
  kModeSynchronousRgba = 4   // packed RGBA in place, blocking; no ring, no registration
};

// Ids of KRSetParameter. Value: one int unless said otherwise.
enum InternalParameter : unsigned {
  kParamEnabled = 0,
  kParamZoom = 1,   // float, 1..32; 4 is the same
  kParamQuadA = 2,  // eight floats, null switches the quad off: the untouched view
  kParamQuadB = 3,  // the same for the enhanced picture
  kParamZoomAlias = 4,
  kParamStabilization = 5,  // 9 is the same
  kParamSharpening = 6,
  kParamContrast = 7,
  kParamDeghosting = 8,
  kParamStabilizationAlias = 9,
  kParamNoiseReductionStrength = 10,  // 0..100 where it is used
  kParamForceStabilization = 11,      // no value
  kParamFlipChroma = 12,
  kParamLightMode = 16,        // 0 temporal, 1 spatial; others keep the registration state as it is
  kParamImageFormat = 17,      // 17 NV21, 0x32315659 YV12
  kParamTotalZoom = 18,        // float, 1..32
  kParamExposureStrength = 19  // 0..100, clamped
};

// Makes an engine and its threads; returns when the GPU side stands. 0, and *handle set; 1 when the sizes are refused (each
// at least 1, width * height * 4 within an int), memory ran out or a thread could not be made: *handle is untouched then.
// EGL or shader failures are no failure of this call: see engineReady.
//
//   ringSlots        input frames in flight, limited to 1..3
//   outputDelay      read-back buffers, limited to 1..3: a frame is delivered outputDelay - 1 calls late
//   syncWithCaller   1: KRProcessFrame waits for an enhanced frame. With ringSlots and outputDelay 1 it is its own.
//   window           native window, or null for off-screen
int initializeEngine(int width, int height, int mode, int ringSlots, int outputDelay, int syncWithCaller, void* window,
                     _KRSuperResEngine** handle);

// Stops the threads, waits for every call and job that still uses the engine, frees it. *handle keeps its value. 1 when
// there is no such live engine.
int releaseEngine(_KRSuperResEngine** handle);

// 0 stored; 1 no live engine, or unknown id. Any thread.
int KRSetParameter(unsigned internalId, const void* value, _KRSuperResEngine* engine);

// As Noxel_ProcessFrame. In mode 4 `frame` is width * height * 4 bytes of RGBA, enhanced in place.
int KRProcessFrame(unsigned char* frame, _KRSuperResEngine* engine);

// True when the context and every program the mode needs are there. Otherwise no GL call is ever made for this engine and
// each frame comes back as it went in.
bool engineReady(_KRSuperResEngine* engine);

// What was decided about the newest frame that was posted to the GPU. In the synchronous set-up above that is the frame
// KRProcessFrame just returned.
struct FrameReport {
  int status;   // -1 spatial path, 0 first frame or failed registration, 1 registered
  float gamma;  // exponent and gain of the tone step
  float gain;
  float zoom;             // the eased zoom
  double uploadMs;        // upload and registration, as the job saw them
  double registrationMs;  // the part of it that waited for motion and exposure
};
FrameReport lastFrameReport(_KRSuperResEngine* engine);  // call it between frames, on the caller's thread

}  // namespace noxel
