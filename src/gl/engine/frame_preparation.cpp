#include <chrono>
#include <limits>

#include "gl/engine/gpu_engine.h"

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

// The spatial path reads packed luma, the others plain luma. When the status changed after the load command, the wrong one was
// loaded.
void ensureLumaForSequence(_KRGPUEngine* engine) {
  const bool packed = engine->historyCount == -1;
  if (packed && !engine->packedLumaFilled) loadPackedLuma(engine, engine->frame.buffer);
  if (!packed && !engine->lumaFilled) loadLuma(engine, engine->frame.buffer);
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
void updateWarps(_KRGPUEngine* engine, const Frame& frame) {
  const Warp previous = engine->frameFromPicture;
  const Warp zoom = zoomAboutCentre(static_cast<double>(1.0f / frame.settings.zoom));
  // A frame that restarts accumulated history is drawn zoomed only, unless losses are to be eased.
  const bool stabilized = !engine->plan->accumulates || engine->historyCount != 0 || frame.settings.easesLosses != 0;
  const Warp stabilization = textureSpace(frame.motion.stabilizationTransform, engine->width, engine->height);
  const Warp current = stabilized ? multiply(inverse(stabilization), zoom) : zoom;

  Warp previousFromCurrent;
  if (frame.status >= 1) {
    previousFromCurrent = textureSpace(frame.motion.frameMatrixA, engine->width, engine->height);
  }
  engine->frameFromPicture = current;
  widen(zoom, engine->zoomWarp);
  widen(current, engine->stabilizedWarp);
  const Warp previousFromPicture = multiply(previousFromCurrent, current);
  widen(multiply(inverse(previous), previousFromPicture), engine->motionWarp);
  widen(previousFromCurrent, engine->previousFromCurrent);
  widen(previousFromPicture, engine->previousFromPicture);
  widen(multiply(engine->previousFromFrame, previousFromPicture), engine->oldestFromPicture);
  engine->previousFromFrame = previousFromCurrent;
}

// The picture fills the window, which may have been resized. Its first row, texture coordinate 0, belongs at the top of the
// window, where y is 1.
void followWindow(_KRGPUEngine* engine) {
  if (engine->offscreen == 1) return;
  engine->egl.GetSurfaceSize(&engine->outputWidth, &engine->outputHeight);
  engine->outputTransform[5] = -1.0f;
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

void prepareFrame(_KRGPUEngine* engine, const Frame& frame) {
  // Frames of the other path still in the read-back ring must not come back after this one.
  if (frame.path() != engine->frame.path()) resetFirstFrame(engine);
  engine->frame = frame;
  engine->frame.taken = std::chrono::steady_clock::now();
  if (engine->texturesLoaded == 0) loadTextures(engine, frame.buffer);
  followWindow(engine);
  updateHistory(engine, frame.status);
  updateWarps(engine, frame);
  ensureLumaForSequence(engine);
}

}  // namespace noxel
