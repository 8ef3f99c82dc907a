// The engine as our own tools and tests drive it: the functions behind the C interface, with nothing folded away.
#pragma once

#include <cstddef>
#include <cstdint>

#include "noxel/noxel.h"
#include "platform/frame_clock.h"
#include "platform/log.h"
#include "registration/noise_curve.h"

namespace noxel {

// Engine modes. The C interface always makes kModeEnhance.
enum EngineMode : int {
  kModeThreeFrames = 0,  // mean of the last three frames, or each by itself along its edges; sharpened, not toned
  kModeEnhance = 1,
  kModeStabilize = 2,        // stabilised and sharpened, no history; stabilisation is on from the start
  kModeNeutralExposure = 3,  // as kModeEnhance with gamma and gain held at 1
  kModeSynchronousRgba = 4,  // packed RGBA in place, blocking; no ring, no registration
  // The clear picture: history on a canvas that stands still, local motion, noise taken out by what is known of it, tone
  // that leaves well-exposed pictures alone. Strength 0..100, 0: the frames as they came.
  kModeClear = 5
};

// Ids of KRSetParameter. Value: one int unless said otherwise.
enum InternalParameter : unsigned {
  kParamEnabled = 0,
  kParamZoom = 1,   // float, 1..32; 4 is the same
  kParamQuadA = 2,  // eight floats, null switches the quad off: the untouched view
  kParamQuadB = 3,  // the same for the enhanced picture
  kParamZoomAlias = 4,
  kParamStabilization = 5,  // 9 is the same
  kParamSharpening = 6,     // 0..100 where it is used, as the next: modes 0, 2 and 4
  kParamContrast = 7,
  kParamDeghosting = 8,
  kParamStabilizationAlias = 9,
  kParamNoiseReductionStrength = 10,  // 0..100 where it is used
  kParamForceStabilization = 11,      // no value
  kParamFlipChroma = 12,              // 1: U comes back before V; modes 0 and 2
  kParamLightMode = 16,               // 0 temporal, 1 spatial; others keep the path (mode 0: each frame by itself)
  kParamImageFormat = 17,             // 17 NV21, 0x32315659 YV12
  kParamTotalZoom = 18,               // float, 1..32; mode 4: how far the picture will be magnified
  kParamExposureStrength = 19,        // 0..100, clamped
  kParamQuality = 20                  // 0 fast, 1 balanced, 2 best, clamped; mode 5
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

// What an engine has to itself. Null: the process's, which its engines share.
struct EngineHost {
  const char* cacheDirectory = nullptr;  // read while the engine is made
  platform::LogTarget* log = nullptr;    // of its threads; outlives it
  platform::FrameClock clock = nullptr;  // breaks in the sequence are found by it, whatever other engines do
  void* clockContext = nullptr;
  void* shareDisplay = nullptr;  // EGLDisplay and EGLContext whose textures it may draw into
  void* shareContext = nullptr;
};
int initializeEngine(int width, int height, int mode, int ringSlots, int outputDelay, int syncWithCaller, void* window,
                     const EngineHost& host, _KRSuperResEngine** handle);

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

// What was decided about the newest frame that was posted to the GPU, and what was delivered. In the synchronous set-up above that is the frame
// KRProcessFrame just returned. Matrices are 3 x 3, row-major, in frame pixels with the first one's centre at (0.5, 0.5).
struct FrameReport {
  uint64_t number = 0;  // frames delivered so far: another one is another picture
  int status = 0;       // -1 spatial path, 0 first frame or failed registration, 1 registered
  float gamma = 1.0f;   // exponent and gain of the tone step
  float gain = 1.0f;
  float zoom = 1.0f;            // the eased zoom
  double uploadMs = 0.0;        // of the GPU thread, planes to textures
  double registrationMs = 0.0;  // until the job had motion and exposure, luminance included
  double gpuMs = 0.0;           // of the GPU thread, from taking the frame over to its delivery
  bool startsSequence = false;  // its motion was not measured: it is what the next one is measured against
  int pointsTracked = 0;        // into this frame, 0 on the spatial path
  int pointsKept = 0;           // of them, what the motion was fitted to
  float previousFromCurrent[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float stabilizedFromCurrent[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // before the zoom
  float toneLevels[256] = {};                                    // mode 5: by luma in, luma out
  NoiseCurve noise;  // of this frame, U and V too; not known unless measureNoise is on
};

// Called on the GPU thread once for each pass of a frame, in the order in which they were drawn, before the frame is delivered.
// pass: a literal. Nanoseconds come from the GPU's timer queries, or where the driver has none from the processor's clock with
// the GPU drained before and after each pass; 0: not known.
using PassObserver = void (*)(void* context, const char* pass, uint64_t nanoseconds);

// What follows is called between frames, on the caller's thread.

// From the next frame on; null, as at the start, switches it off. An observed frame waits for its passes. 1: no live engine.
int observePasses(_KRSuperResEngine* engine, PassObserver observer, void* context);

// From the next frame on; off by default, in mode 5 always on. Costs registration half a millisecond a frame. 1: no live engine, out of memory,
// or a mode without registration (4).
int measureNoise(_KRSuperResEngine* engine, bool on);

// From the next frame on; off, as at the start, a frame whose motion is not known is drawn unstabilised and the camera path
// restarts from rest, which is a jump of up to 3 % of the picture. On, its stabilisation falls by 1/20 a frame (angle and
// scale: 3/20) until the motion is known again and the path goes on from there; only a break in the sequence restarts it.
// 1: no live engine.
int easeLosses(_KRSuperResEngine* engine, bool on);

// The next frame's camera path starts from rest: that frame is not moved by stabilisation. 1: no live engine.
int restartCameraPath(_KRSuperResEngine* engine);

// For a caller that waits for each frame and has the next one already: of the frame that KRProcessFrame gets next, `given`, and of
// the one that it will get after it, with the same parameters and without a break in the sequence. The latter, NV21, is then
// registered while the former is drawn; it is read, and must not change, until it has been given in turn or finishAhead
// returns. Null: none. With it lastTracks and lastOwnTracks are not to be asked. In mode 0 and 4 nothing is done ahead.
void announceFrames(_KRSuperResEngine* engine, const unsigned char* given, const unsigned char* next);

// Returns when no frame is being registered ahead. What was learnt of one that is not given next is forgotten with the next
// frame, which begins from rest.
void finishAhead(_KRSuperResEngine* engine);

FrameReport lastFrameReport(_KRSuperResEngine* engine);

// The pairs that registration kept of that frame, in frame pixels as above: source in the previous frame, target in the
// current one. They lie on the common motion: a point is placed on it, not tracked singly. Returns how many were
// written, at most `capacity`.
struct _KRMatch;
int lastTracks(_KRSuperResEngine* engine, _KRMatch* tracks, int capacity);

// From the next frame on registration measures what moves otherwise than the whole picture; it does not at the start, and
// there is no way back. 1: no live engine, one that registers no frames, or no memory.
int measureOwnMotion(_KRSuperResEngine* engine);

// The same as lastTracks for the centres of the blocks, of 8 x 8 registration pixels, that moved on their own in that
// frame. None while this is not measured.
int lastOwnTracks(_KRSuperResEngine* engine, _KRMatch* tracks, int capacity);

// Draws a finished NV21 frame of the engine's size, of which the first `usedWidth` x `usedHeight` pixels count, into an RGBA
// texture of the context that the engine shares; returns when that has been done. Any thread. 1: no live engine, none is
// shared, or it could not be drawn.
int drawIntoTexture(_KRSuperResEngine* engine, const unsigned char* nv21, int usedWidth, int usedHeight,
                    unsigned texture, int width, int height);

// Mode 5 in the synchronous set-up above can look ahead, by a second engine that is fed the following frames backwards: its
// blends, without the frame itself, are kept and offered to the first one, which weights both by the frames they are worth.
//
// Makes the images for it. 1: no live engine of mode 5, or no memory; the engine goes on without.
int enableBlends(_KRSuperResEngine* engine);

// 16-bit words of a blend: per 2 x 2 pixels four of luma, then in a second plane U, V, the count of frames (11 bits behind the
// point) and an unused one; levels have 8 bits behind the point. A count of 0: nothing is known there.
size_t blendWords(int width, int height);

// Of the next frame alone. `words` stays the caller's and is used until KRProcessFrame returns. A frame whose blend is kept
// comes back as it was; where it could not be drawn `words` is left alone, and where it could not be read all 0. 1: no live engine, or blends are not enabled.
int keepBlend(_KRSuperResEngine* engine, uint16_t* words);
int offerBlend(_KRSuperResEngine* engine, const uint16_t* words);

// How far the blend of the frame delivered last was held back: 0 as the strength asks for, 255 the current frame alone. Over the
// output picture; in mode 5 over the frame itself, and with fewer frames behind a place than the strength asks for it grows.
// Off by default; while it is on, the GPU thread waits for the mask of each frame. 1 when there is no live engine, memory ran
// out, or the engine does not blend so (modes 1, 3 and 5 do).
int captureGhostMask(_KRSuperResEngine* engine, bool on);

// Writes width x height bytes, 1/8 of the frame's size, in mode 5 half of it, and says so in *width and *height. False, and nothing written, when
// that frame was not blended, the capture is off, or `capacity` is too small.
bool lastGhostMask(_KRSuperResEngine* engine, unsigned char* mask, int capacity, int* width, int* height);

}  // namespace noxel
