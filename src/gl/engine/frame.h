// A frame on its way: built by its upload job (in mode 4 by the caller), lent to the GPU thread with each command, and that
// thread's own from the process command on.
#pragma once

#include <chrono>
#include <cstdint>

namespace noxel {

// One snapshot of every parameter that the frame needs, each within the range in which it is used.
struct FrameSettings {
  int enabled = 1;
  float zoom = 1.0f;                              // 1..32, as eased
  float totalzoom = -1.0f;                        // 1..32, or not set; mode 4
  float quadA[8] = {-1, 1, -1, -1, 1, 1, 1, -1};  // the untouched view
  float quadB[8] = {-1, 1, -1, -1, 1, 1, 1, -1};  // the enhanced picture
  int quadAEnabled = 0;
  int quadBEnabled = 1;
  int useStabilization = 0;
  int noiseReductionStrength = 65;  // 0..100: beyond, the current frame would weigh nothing and the picture freeze
  int quality = 1;                  // 0 fast, 1 balanced, 2 best; mode 5
  int deghosting = 5;               // as given
  float sharpening = 2.0f;          // 0..100, as the next; modes 0, 2 and 4
  float contrast = 30.0f;
  int flipChroma = 0;    // 1: U before V in what is handed back; modes 0 and 2
  int easesLosses = 0;   // 1: a frame without valid motion may be stabilised too
  int lightMode = 1;     // as given
  int imageFormat = 17;  // as given
};

// 3 x 3, row-major, in frame pixels.
struct FrameParameters {
  float frameMatrixA[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};            // current to previous frame
  float frameMatrixB[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};            // its inverse
  float stabilizationTransform[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // current frame to stabilised picture
};

struct Tone {
  float gamma = 1.0f;  // exponent
  float gain = 1.0f;
};

// Variance of the frame's noise by luma, 8-bit levels squared; entry i is for luma 8 i .. 8 i + 7. Mode 5.
struct FrameNoise {
  static constexpr int kEntries = 32;
  float luma[kEntries];
  float blue[kEntries];  // of U
  float red[kEntries];   // of V
};

// How the blocks of a frame moved beside the common motion, row by row from the top left. Mode 5.
struct LocalMotion {
  const float* blocks = nullptr;  // each: dx, dy, confidence; null: none is known to
  int columns = 0;
  int rows = 0;
  int block = 8;                 // pixels of the frame across
  float scale = 1.0f;            // pixels of the frame for 1 in dx, dy
  float leastConfidence = 0.5f;  // below, the common motion holds
};

// Which way a frame is enhanced: by itself, or together with those before it.
enum class FramePath : uint8_t { kNone, kSpatial, kTemporal };

struct Frame {
  unsigned char* buffer = nullptr;  // NV21, in mode 4 RGBA; the GPU thread reads it until prepareFrame returns
  uint32_t sequence = 0;
  FrameSettings settings;
  FrameParameters motion;
  Tone tone;
  FrameNoise noise = {};
  // Mode 5, borrowed as the buffer is: by luma level 0..255 the level out, and the factor of chroma's distance from grey,
  // 0..15. Null: the tone is left alone.
  const float* toneLevels = nullptr;
  const float* toneChromaGains = nullptr;
  LocalMotion localMotion;  // as these
  int status = 1;           // -1 spatial path, 0 first frame or failed registration, 1 registered

  bool startsSequence = false;                  // the tracker has nothing to measure its motion against
  double uploadMs = 0.0;                        // of the GPU thread, planes to textures
  double registrationMs = 0.0;                  // until the job had motion and exposure
  std::chrono::steady_clock::time_point taken;  // by prepareFrame

  FramePath path() const { return status == -1 ? FramePath::kSpatial : FramePath::kTemporal; }
};

}  // namespace noxel
