#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <utility>

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
  const bool packed = engine->historyCount == -1 && engine->plan->lightReadsPacked;
  if (packed && !engine->packedLumaFilled) loadPackedLuma(engine, engine->frame.buffer);
  if (!packed && !engine->lumaFilled) loadLuma(engine, engine->frame.buffer);
}

// Mode 5, where the enhanced picture is not wanted.
void leaveAsItCame(_KRGPUEngine* engine) {
  engine->frame.settings.noiseReductionStrength = 0;
  engine->frame.toneLevels = engine->frame.toneChromaGains = nullptr;
  engine->frameFromPicture = {};
}

// As 16 bits, the high byte first.
void storeWord(float value, unsigned char* bytes) {
  const auto bits = static_cast<unsigned>(std::lround(std::clamp(value, 0.0f, 65535.0f)));
  bytes[0] = static_cast<unsigned char>(bits >> 8);
  bytes[1] = static_cast<unsigned char>(bits & 255);
}

void loadTone(_KRGPUEngine* engine) {
  const Frame& frame = engine->frame;
  unsigned char texels[4 * kToneEntries];
  for (int i = 0; i < kToneEntries; ++i) {
    const float level = frame.toneLevels != nullptr ? frame.toneLevels[i] : static_cast<float>(i);
    const float gain = frame.toneChromaGains != nullptr ? frame.toneChromaGains[i] : 1.0f;
    storeWord(std::min(level, 255.0f) * 256.0f, texels + 4 * i);
    storeWord(std::min(gain, 15.0f) * 4096.0f, texels + 4 * i + 2);
  }
  engine->toneTexture.Load(texels);
}

// What the caller asked of this frame.
void takeBlends(_KRGPUEngine* engine) {
  DeliveryNotes* notes = engine->handOver.notes;
  const uint16_t* offered = nullptr;
  engine->keptBlend = nullptr;
  if (notes != nullptr) {
    Lock lock(*engine->handOver.frameMutex);
    engine->keptBlend = std::exchange(notes->keptBlend, nullptr);
    offered = std::exchange(notes->offeredBlend, nullptr);
  }
  engine->clearFrame.keeps = engine->keptBlend != nullptr;
  engine->clearFrame.merges = offered != nullptr && !engine->clearFrame.keeps;
  if (engine->clearFrame.merges) frameBufferOf(engine, Image::kOffered)->LoadWords(offered);
}

// Of every 16th row.
float meanLuma(const _KRGPUEngine& engine) {
  uint64_t sum = 0, count = 0;
  for (int y = 0; y < engine.height; y += 16) {
    const unsigned char* row = engine.frame.buffer + static_cast<size_t>(y) * static_cast<size_t>(engine.width);
    for (int x = 0; x < engine.width; ++x) sum += row[x];
    count += static_cast<uint64_t>(engine.width);
  }
  return static_cast<float>(sum) / static_cast<float>(count);
}

void loadLocalMotion(_KRGPUEngine* engine) {
  const LocalMotion& motion = engine->frame.localMotion;
  ClearFrame* clear = &engine->clearFrame;
  clear->localBlock = static_cast<float>(motion.block);
  const int columns = std::min(motion.columns, engine->localMotionTexture.width);
  const int rows = std::min(motion.rows, engine->localMotionTexture.height);
  for (int row = 0; row < engine->localMotionTexture.height; ++row) {
    for (int column = 0; column < engine->localMotionTexture.width; ++column) {
      float moved[2] = {0, 0};
      if (motion.blocks != nullptr && column < columns && row < rows) {
        const float* block = motion.blocks + 3 * (row * motion.columns + column);
        for (int i = 0; i < 2 && block[2] >= motion.leastConfidence; ++i) moved[i] = block[i] * motion.scale;
      }
      clear->movesLocally = clear->movesLocally || moved[0] != 0.0f || moved[1] != 0.0f;
      unsigned char* texel = engine->localMotionTexels + 4 * (row * engine->localMotionTexture.width + column);
      for (int i = 0; i < 2; ++i) storeWord((moved[i] + 128.0f) * 256.0f, texel + 2 * i);
    }
  }
  engine->localMotionTexture.Load(engine->localMotionTexels);
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

void loadShownFrame(_KRGPUEngine* engine, const unsigned char* nv21) {
  engine->lumaTexture.Load(nv21);
  engine->chromaTexture.Load(nv21 + engine->lumaSize);
  engine->texturesLoaded = 0;  // the next frame's planes are not there
  engine->lumaFilled = false;
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
  if (engine->plan->hasCanvas) {
    if (frame.settings.enabled != 1 || frame.settings.quadBEnabled != 1) leaveAsItCame(engine);
    engine->clearFrame = engine->clearHistory.step(engine->historyCount >= 1 ? frame.motion.frameMatrixA : nullptr,
                                                   engine->frameFromPicture, meanLuma(*engine));
    takeBlends(engine);
    loadTone(engine);
    loadLocalMotion(engine);
  }
  ensureLumaForSequence(engine);
}

}  // namespace noxel
