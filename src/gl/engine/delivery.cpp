// How a finished frame leaves the GPU.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "gl/engine/gpu_engine.h"
#include "platform/log.h"

namespace noxel {
namespace {

void loseContext(_KRGPUEngine* engine) {
  if (engine->handOver.ready->exchange(0, std::memory_order_acq_rel) == 0) return;
  NOXEL_LOG_ERROR("the GPU context is lost: frames are returned as they came");
}

// Packs both planes and copies the oldest frame of the rings to readBackFrame. False when one of them could not be mapped.
bool readBack(_KRGPUEngine* engine) {
  drawPack(engine, Image::kLumaBytes);
  const bool lumaRead = readImage(frameBufferOf(engine, Image::kLumaBytes), engine->readBackFrame);
  drawPack(engine, Image::kChromaBytes);
  const bool chromaRead =
      readImage(frameBufferOf(engine, Image::kChromaBytes), engine->readBackFrame + engine->lumaSize);
  return lumaRead && chromaRead;
}

// Called under frameMutex.
bool countDelivered(const HandOver& handOver, uint32_t sequence) {
  if (handOver.sequence->load(std::memory_order_relaxed) != sequence) return false;
  handOver.queuedFrames->fetch_sub(1, std::memory_order_acq_rel);
  return true;
}

unsigned char maskLevel(float heldBack) {
  return static_cast<unsigned char>(std::lround(255.0f * std::clamp(heldBack, 0.0f, 1.0f)));
}

// The mask holds the weight of the current frame: the strength's own where nothing holds the blend back, 1 at most.
void noteMask(DeliveryNotes* notes, MaskSize size, float ownWeight) {
  const auto* weights = static_cast<const unsigned char*>(notes->maskPixels);
  for (int i = 0; i < size.width * size.height; ++i) {
    const float weight = static_cast<float>(weights[4 * i]) / 255.0f;
    notes->mask[i] = maskLevel((weight - ownWeight) / (1.0f - ownWeight));
  }
}

// The blend's third value counts frames, in steps of 1/2048, the current one included.
void noteCounts(DeliveryNotes* notes, MaskSize size, float maxCount) {
  const auto* cells = static_cast<const uint32_t*>(notes->maskPixels);
  for (int i = 0; i < size.width * size.height; ++i) {
    const float count = static_cast<float>(cells[4 * i + 2]) / 2048.0f;
    notes->mask[i] = maxCount > 1.0f ? maskLevel(1.0f - (count - 1.0f) / (maxCount - 1.0f)) : 0;
  }
}

// Called under frameMutex.
void takeNotes(const _KRGPUEngine& engine, bool wasRead, DeliveryNotes* notes) {
  notes->missed = !wasRead && engine.offscreen == 1;
  if (!notes->missed) {
    ++notes->delivered;
    notes->outputPath = engine.frame.path();
  }
  notes->gpuMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - engine.frame.taken).count();
  notes->maskValid = engine.maskCaptured;
  if (!notes->maskValid) return;
  const int strength = engine.frame.settings.noiseReductionStrength;
  const MaskSize size = ghostMaskSize(engine.width, engine.height, engine.plan->hasCanvas);
  if (engine.plan->hasCanvas) {
    noteCounts(notes, size, maxFrameCount(strength));
  } else {
    noteMask(notes, size, ownWeight(strength));
  }
}

}  // namespace

void deliver(_KRGPUEngine* engine, const unsigned char* bytes) {
  const HandOver& handOver = engine->handOver;
  Lock lock(*handOver.frameMutex);
  const bool current = countDelivered(handOver, engine->frame.sequence);
  if (current && bytes != nullptr) {
    std::memcpy(handOver.outputBuffer, bytes, engine->lumaSize + engine->lumaSize / 2);
  }
  if (current && handOver.notes != nullptr) takeNotes(*engine, bytes != nullptr, handOver.notes);
  // After a frame from before a break the caller goes on waiting for its own. Under the lock, so that a break sees either no
  // output of the old sequence announced, or a complete one.
  if (handOver.syncWithCaller == 1) handOver.callerSignal->raise(current ? 1 : -1);
}

bool readImage(FrameBuffer* image, unsigned char* bytes) {
  forgetGLErrors();
  image->StartReadPixels();
  return glGetError() == GL_NO_ERROR && image->FinishReadPixels(bytes);
}

void noteReadBack(_KRGPUEngine* engine, bool complete) {
  constexpr int kMaxFailures = 8;  // a quarter of a second of a camera's frames
  if (!complete && engine->failedReadBacks == 0)
    NOXEL_LOG_ERROR("glReadPixels or glMapBufferRange failed: the frame is not handed over");
  engine->failedReadBacks = complete ? 0 : engine->failedReadBacks + 1;
  if (engine->failedReadBacks == kMaxFailures) loseContext(engine);
}

void swapBuffers(_KRGPUEngine* engine) {
  if (engine->egl.SwapBuffers() != EGL_TRUE && engine->egl.contextLost) loseContext(engine);
}

void ReadBackYuv(_KRGPUEngine* engine) {
  // Through an internal buffer: frameMutex is never held while waiting for the GPU, and a half-read frame is never seen.
  const bool complete = readBack(engine);
  noteReadBack(engine, complete);
  if (!complete) resetFirstFrame(engine);  // the rings hold half a frame
  engine->passTimer.report();
  deliver(engine, complete ? engine->readBackFrame : nullptr);
}

void dropFrame(const HandOver& handOver, uint32_t sequence) {
  {
    Lock lock(*handOver.frameMutex);
    countDelivered(handOver, sequence);
  }
  handOver.callerSignal->wake();
}

}  // namespace noxel
