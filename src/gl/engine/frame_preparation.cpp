#include <algorithm>
#include <cstring>
#include <limits>

#include "gl/engine/gpu_engine.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

void loadLuma(_KRGPUEngine* engine, const unsigned char* frame) {
  engine->lumaTexture.Load(frame);
  engine->lumaFilled = true;
}

void loadPackedLuma(_KRGPUEngine* engine, const unsigned char* frame) {
  engine->packedLumaTexture.Load(frame);
  engine->packedLumaFilled = true;
}

void loadChroma(_KRGPUEngine* engine, const unsigned char* frame) {
  engine->chromaTexture.Load(frame + engine->lumaSize);
  engine->texturesLoaded = 1;
}

// The spatial path reads the packed luma, every other the plain one. A status that changed between the load command and
// this frame's process command brought the other.
void ensureLumaForSequence(_KRGPUEngine* engine) {
  const bool packed = engine->historyCount == -1;
  if (packed && !engine->packedLumaFilled) loadPackedLuma(engine, engine->frame);
  if (!packed && !engine->lumaFilled) loadLuma(engine, engine->frame);
}

// In window mode the first row of the picture, texture coordinate 0, is to be at the top of the window, where y is 1; the
// position is turned upside down before the transform sees it.
void setOutputTransform(_KRGPUEngine* engine, const float* transform) {
  std::memcpy(engine->outputTransform, transform, sizeof(engine->outputTransform));
  if (engine->offscreen == 1) return;
  for (int row = 0; row < 4; ++row) engine->outputTransform[4 + row] = -engine->outputTransform[4 + row];
}

void updateHistory(_KRGPUEngine* engine, int status) {
  if (status < 1) {
    engine->historyCount = status;
  } else if (engine->historyCount < std::numeric_limits<int>::max()) {
    ++engine->historyCount;
  }
}

// The stabilisation matrix S takes current to stabilised pixels, so a texture coordinate of the output goes through the
// crop Z and then through N(S)^-1 to the current frame: W = N(S)^-1 Z. From there N(A) leads to the previous frame and
// W_prev^-1 to where that frame was drawn: motionWarp = W_prev^-1 N(A) W. Mode 0 keeps frames undrawn: N(A) W leads to the
// previous one and N(A_prev) N(A) W to the one before.
void updateWarps(_KRGPUEngine* engine, const FrameInput& input) {
  const Warp previous = engine->stabilizedTextureWarp;
  const Warp zoom = zoomAboutCentre(static_cast<double>(engine->inverseZoom));
  // A frame that restarts accumulated history is drawn zoomed only.
  const bool stabilized = !engine->plan->accumulates || engine->historyCount != 0;
  const Warp stabilization = textureSpace(input.parameters.stabilizationTransform, engine->width, engine->height);
  const Warp current = stabilized ? multiply(inverse(stabilization), zoom) : zoom;

  Warp previousFromCurrent;
  if (input.status >= 1) {
    previousFromCurrent = textureSpace(input.parameters.frameMatrixA, engine->width, engine->height);
  }
  engine->stabilizedTextureWarp = current;
  widen(zoom, engine->zoomWarp);
  widen(current, engine->stabilizedWarp);
  const Warp previousFromPicture = multiply(previousFromCurrent, current);
  widen(multiply(inverse(previous), previousFromPicture), engine->motionWarp);
  widen(previousFromCurrent, engine->previousFromCurrent);
  widen(previousFromPicture, engine->previousFromPicture);
  widen(multiply(engine->lastMotion, previousFromPicture), engine->oldestFromPicture);
  engine->lastMotion = previousFromCurrent;
}

// A window may have been resized since the frame before: the picture fills it.
void followWindow(_KRGPUEngine* engine) {
  if (engine->offscreen == 0) engine->egl.GetSurfaceSize(&engine->outputWidth, &engine->outputHeight);
}

// What the read-back ring still holds of the other path must not come back among this one's.
void followPath(_KRGPUEngine* engine, FramePath path) {
  if (path != engine->path) resetFirstFrame(engine);
  engine->path = path;
}

float percent(int value) {
  return static_cast<float>(std::clamp(value, 0, 100));
}

}  // namespace

void loadTextures(_KRGPUEngine* engine, const unsigned char* frame) {
  loadLuma(engine, frame);
  loadChroma(engine, frame);
}

void loadPackedTextures(_KRGPUEngine* engine, const unsigned char* frame) {
  loadPackedLuma(engine, frame);
  loadChroma(engine, frame);
}

void loadPackedTextureYOnly(_KRGPUEngine* engine, const unsigned char* frame) {
  loadPackedLuma(engine, frame);
}

void loadTextureUVOnly(_KRGPUEngine* engine, const unsigned char* frame) {
  loadChroma(engine, frame);
}

void loadRgbaTexture(_KRGPUEngine* engine, const unsigned char* frame) {
  engine->rgbaTexture.Load(frame);
  engine->texturesLoaded = 1;
}

void prepareFrame(_KRGPUEngine* engine, const FrameInput& input) {
  engine->frameStart = std::chrono::steady_clock::now();
  engine->frame = input.frame;
  engine->frameSequence = input.sequence;
  if (engine->texturesLoaded == 0) loadTextures(engine, input.frame);

  followWindow(engine);
  setOutputTransform(engine, input.transform);
  engine->enhancementEnabled = input.enabled;
  engine->outputQuadEnabled = input.quadBEnabled;
  engine->passThroughQuadEnabled = input.quadAEnabled;
  engine->inverseZoom = 1.0f / input.zoom;
  PassContext* context = &engine->passContext;
  context->settings.flipChroma = input.flipChroma;
  context->settings.sharpening = percent(input.sharpening);
  context->settings.contrast = percent(input.contrast);
  context->gamma = input.gamma;
  context->gain = input.gain;
  std::memcpy(engine->passThroughQuad, input.quadA, sizeof(input.quadA));
  std::memcpy(engine->outputQuad, input.quadB, sizeof(input.quadB));

  followPath(engine, framePath(input.status));
  updateHistory(engine, input.status);
  updateWarps(engine, input);
  ensureLumaForSequence(engine);
}

}  // namespace noxel
