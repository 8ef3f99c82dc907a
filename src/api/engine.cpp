// Birth and death of an engine.
#include "api/engine.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <new>

#include "api/engine_registry.h"
#include "api/properties.h"
#include "api/threads.h"
#include "platform/log.h"
#include "registration/luminance.h"
#include "registration/point_tracker.h"

namespace noxel {

pthread_mutex_t frameMutex = PTHREAD_MUTEX_INITIALIZER;
platform::TimeOfDay lastFrameTime = {};

namespace {

bool isProcessable(int width, int height) {
  return width > 0 && height > 0 && int64_t{width} * height <= INT_MAX / 4;
}

_KRSuperResEngine* allocateEngine() {
  void* memory = std::malloc(sizeof(_KRSuperResEngine));
  if (memory == nullptr) NOXEL_LOG_ERROR("no memory for the engine");
  return memory != nullptr ? new (memory) _KRSuperResEngine() : nullptr;
}

// The ring, the output, and the spare that a reset may need.
bool allocateFrames(_KRSuperResEngine* engine) {
  // A texture is at least one texel of four luma bytes wide and a chroma pair high: uploads of tiny frames read that far.
  const size_t size = frameSize(engine->width + 4, engine->height + 2);
  for (unsigned char*& buffer : engine->frameBuffers) {
    buffer = static_cast<unsigned char*>(std::calloc(size, 1));
    if (buffer == nullptr) return false;
  }
  engine->spareBuffer = static_cast<unsigned char*>(std::calloc(size, 1));
  if (engine->spareBuffer == nullptr || engine->mode != kModeThreeFrames) return engine->spareBuffer != nullptr;
  engine->chromaAsFilmed = static_cast<unsigned char*>(std::calloc(size / 3, 1));
  return engine->chromaAsFilmed != nullptr;
}

// Undoes an engine in whatever state it is, when nobody else uses it.
void freeEngine(_KRSuperResEngine* engine) {
  for (unsigned char* buffer : engine->frameBuffers) std::free(buffer);
  std::free(engine->spareBuffer);
  std::free(engine->chromaAsFilmed);
  for (_KRSignal* signal : {&engine->callerSignal, &engine->gpu.gpuRequest, &engine->gpu.gpuDone,
                            &engine->registration.registrationRequest, &engine->registration.registrationDone}) {
    signal->destroy();
  }
  pthread_mutex_destroy(&engine->jobMutex);
  pthread_mutex_destroy(&engine->apiMutex);
  pthread_mutex_destroy(&engine->ownFrameMutex);
  std::free(engine->notes.maskPixels);
  std::free(engine->notes.mask);
  engine->~_KRSuperResEngine();
  freeRecordLater(engine);
}

int failInitialize(_KRSuperResEngine* engine) {
  NOXEL_LOG_INFO("failed to initialize engine");
  if (engine != nullptr) {
    stopGPUThread(engine);
    stopRegistrationThread(engine);
    freeEngine(engine);
  }
  return 1;
}

// In mode 4 frames are packed RGBA, and nothing of them is kept: no ring, no registration.
bool setUpSynchronous(_KRSuperResEngine* engine) {
  engine->imageFormat.store(1, std::memory_order_relaxed);
  engine->gpu.imageFormatCopy.store(1, std::memory_order_relaxed);
  return true;
}

bool setUpPipelined(_KRSuperResEngine* engine) {
  engine->scale = resolutionFactor(engine->width, engine->height);
  engine->gpu.useStabilization.store(engine->mode == kModeStabilize ? 1 : 0, std::memory_order_relaxed);
  if (!allocateFrames(engine)) {
    NOXEL_LOG_ERROR("no memory for the engine's frames");
    return false;
  }
  return startRegistrationThread(engine) == 0;
}

}  // namespace

int initializeEngine(int width, int height, int mode, int ringSlots, int outputDelay, int syncWithCaller, void* window,
                     _KRSuperResEngine** handle) {
  return initializeEngine(width, height, mode, ringSlots, outputDelay, syncWithCaller, window, EngineHost(), handle);
}

int initializeEngine(int width, int height, int mode, int ringSlots, int outputDelay, int syncWithCaller, void* window,
                     const EngineHost& host, _KRSuperResEngine** handle) {
  NOXEL_LOG_INFO("initialize with %d %d %d %p\n", ringSlots, outputDelay, syncWithCaller, window);
  if (handle == nullptr || !isProcessable(width, height)) return failInitialize(nullptr);
  _KRSuperResEngine* engine = allocateEngine();
  if (engine == nullptr) return failInitialize(nullptr);
  readDebugProperty();

  engine->mode = mode;
  engine->height = height;
  engine->width = width;
  engine->offscreen = window == nullptr ? 1 : 0;
  engine->gpu.window = window;
  engine->host = host;
  engine->frameMutex = host.clock == nullptr ? &frameMutex : &engine->ownFrameMutex;
  engine->lastFrameTime = host.clock == nullptr ? &lastFrameTime : &engine->ownLastFrameTime;
  engine->ringSlots = std::clamp(ringSlots, 1, 3);
  engine->outputDelay = std::clamp(outputDelay, 1, 3);
  engine->syncWithCaller = syncWithCaller;
  const int countdown = engine->offscreen == 1 ? 1 - engine->outputDelay : 0;
  engine->gpu.outputCountdown.store(countdown, std::memory_order_release);
  const bool setUp = mode == kModeSynchronousRgba ? setUpSynchronous(engine) : setUpPipelined(engine);
  if (!setUp) return failInitialize(engine);
  engine->callerSignal.raise(-1);

  engine->initialized.store(1, std::memory_order_release);
  _KRSuperResEngine* const previousHandle = *handle;
  {
    Lock lock(*engine->frameMutex);
    *handle = engine;
    publishEngine(engine);
  }
  engine->gpu.gpuMode = mode;
  if (startGPUThread(engine) != 0) {
    *handle = previousHandle;
    engine->initialized.store(0, std::memory_order_release);
    retireEngine(engine);
    waitForReferences(engine);
    return failInitialize(engine);
  }
  return 0;
}

int releaseEngine(_KRSuperResEngine** handle) {
  if (handle == nullptr || *handle == nullptr) return 1;
  _KRSuperResEngine* engine = *handle;
  if (!retireEngine(engine)) {
    NOXEL_LOG_INFO("Engine not initialized");
    return 1;
  }
  {
    Lock lock(engine->apiMutex);
    engine->initialized.store(0, std::memory_order_release);
    engine->callerSignal.raise(-1);  // a caller that waits for its frame leaves
    while (engine->running.load(std::memory_order_acquire) == 1) usleep(5);
    stopGPUThread(engine);
    stopRegistrationThread(engine);
  }
  waitForReferences(engine);
  joinUploadJobs(engine, Jobs::kAll);
  freeEngine(engine);
  return 0;
}

bool engineReady(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  return reference && engine->gpu.ready.load(std::memory_order_acquire) == 1;
}

FrameReport lastFrameReport(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (!reference) return {};
  Lock lock(*engine->frameMutex);
  FrameReport report = engine->report;
  report.number = engine->notes.delivered;
  report.gpuMs = engine->notes.gpuMs;
  return report;
}

int observePasses(_KRSuperResEngine* engine, PassObserver observer, void* context) {
  const EngineReference reference(engine);
  if (!reference) return 1;
  Lock lock(*engine->frameMutex);
  engine->notes.passObserver = observer;
  engine->notes.passObserverContext = context;
  return 0;
}

int measureNoise(_KRSuperResEngine* engine, bool on) {
  const EngineReference reference(engine);
  if (!reference || engine->mode == kModeSynchronousRgba) return 1;
  Lock lock(*engine->frameMutex);
  if (engine->mode == kModeClear) return 0;  // it always does
  RegistrationContext* registration = &engine->registration;
  if (on && !registration->noise.allocate(engine->width, engine->height)) {
    NOXEL_LOG_ERROR("no memory to measure noise");
    return 1;
  }
  registration->measuresNoise.store(on ? 1 : 0, std::memory_order_release);
  return 0;
}

int easeLosses(_KRSuperResEngine* engine, bool on) {
  const EngineReference reference(engine);
  if (!reference) return 1;
  engine->gpu.easesLosses.store(on ? 1 : 0, std::memory_order_relaxed);
  return 0;
}

int restartCameraPath(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (!reference) return 1;
  engine->registration.restartsPath.store(1, std::memory_order_relaxed);
  return 0;
}

int lastTracks(_KRSuperResEngine* engine, _KRMatch* tracks, int capacity) {
  const EngineReference reference(engine);
  if (!reference) return 0;
  const RegistrationContext& registration = engine->registration;
  const int known = engine->report.status == kRegistrationOff ? 0 : registration.matchCount;
  const int count = std::clamp(capacity, 0, known);
  const auto factor = static_cast<float>(engine->scale);
  for (int i = 0; i < count; ++i) {
    const _KRMatch& match = registration.matches[i];
    tracks[i] = {match.sourceX * factor, match.sourceY * factor, match.targetX * factor, match.targetY * factor};
  }
  return count;
}

int measureOwnMotion(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (!reference) return 1;
  Lock job(engine->jobMutex);  // no frame is being registered
  _KROFRegistration* registration = engine->registration.registration;
  if (registration == nullptr) return 1;
  if (enableMotionField(registration)) return 0;
  NOXEL_LOG_ERROR("no memory for the motion field");
  return 1;
}

int lastOwnTracks(_KRSuperResEngine* engine, _KRMatch* tracks, int capacity) {
  const EngineReference reference(engine);
  if (!reference || engine->registration.registration == nullptr || engine->report.status != kRegistrationValid)
    return 0;
  const MotionField field = motionField(*engine->registration.registration);
  if (field.blocks == nullptr) return 0;
  const float(&back)[9] = engine->registration.motionMatrix;
  const auto factor = static_cast<float>(engine->scale);
  int count = 0;
  for (int row = 0; row < field.rows; ++row) {
    for (int column = 0; column < field.columns; ++column) {
      const BlockMotion& block = field.blocks[row * field.columns + column];
      if (count >= capacity || !(block.confidence >= kMovesOnItsOwn)) continue;
      const float x = (static_cast<float>(column) + 0.5f) * kMotionBlockSide * factor;
      const float y = (static_cast<float>(row) + 0.5f) * kMotionBlockSide * factor;
      const float fromX = x - block.dx * factor;
      const float fromY = y - block.dy * factor;
      tracks[count++] = {back[0] * fromX + back[1] * fromY + back[2], back[3] * fromX + back[4] * fromY + back[5], x,
                         y};
    }
  }
  return count;
}

int drawIntoTexture(_KRSuperResEngine* engine, const unsigned char* nv21, int usedWidth, int usedHeight,
                    unsigned texture, int width, int height) {
  const EngineReference reference(engine);
  if (!reference || engine->host.shareContext == nullptr || engine->mode == kModeSynchronousRgba) return 1;
  const ShownFrame frame = {nv21, usedWidth, usedHeight, texture, width, height};
  Lock job(engine->jobMutex);
  Lock api(engine->apiMutex);
  if (engine->initialized.load(std::memory_order_acquire) == 0) return 1;
  engine->gpu.toShow = &frame;
  postCommand(engine, kCommandShow);
  engine->gpu.gpuDone.wait();
  return engine->gpu.shown ? 0 : 1;
}

int enableBlends(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (!reference || engine->mode != kModeClear || engine->offscreen == 0 || engine->syncWithCaller == 0) return 1;
  Lock job(engine->jobMutex);
  Lock api(engine->apiMutex);
  if (engine->initialized.load(std::memory_order_acquire) == 0) return 1;
  postCommand(engine, kCommandPrepareBlends);
  engine->gpu.gpuDone.wait();
  return engine->gpu.blendsPrepared ? 0 : 1;
}

size_t blendWords(int width, int height) {
  return 8 * static_cast<size_t>((width + 1) / 2) * static_cast<size_t>((height + 1) / 2);
}

int keepBlend(_KRSuperResEngine* engine, uint16_t* words) {
  const EngineReference reference(engine);
  if (!reference || !engine->gpu.blendsPrepared) return 1;
  Lock lock(*engine->frameMutex);
  engine->notes.keptBlend = words;
  return 0;
}

int offerBlend(_KRSuperResEngine* engine, const uint16_t* words) {
  const EngineReference reference(engine);
  if (!reference || !engine->gpu.blendsPrepared) return 1;
  Lock lock(*engine->frameMutex);
  engine->notes.offeredBlend = words;
  return 0;
}

int captureGhostMask(_KRSuperResEngine* engine, bool on) {
  const EngineReference reference(engine);
  if (!reference) return 1;
  const bool hasCanvas = engine->mode == kModeClear;
  if (engine->mode != kModeEnhance && engine->mode != kModeNeutralExposure && !hasCanvas) return 1;
  DeliveryNotes* notes = &engine->notes;
  Lock lock(*engine->frameMutex);
  if (on && notes->mask == nullptr) {
    const MaskSize size = ghostMaskSize(engine->width, engine->height, hasCanvas);
    const size_t count = static_cast<size_t>(size.width) * static_cast<size_t>(size.height);
    if (notes->maskPixels == nullptr) notes->maskPixels = std::calloc(count, maskPixelBytes(hasCanvas));
    if (notes->maskPixels != nullptr) notes->mask = static_cast<unsigned char*>(std::calloc(count, 1));
    if (notes->mask == nullptr) {
      NOXEL_LOG_ERROR("no memory for the ghost mask");
      return 1;
    }
  }
  notes->captureMask.store(on ? 1 : 0, std::memory_order_release);
  return 0;
}

bool lastGhostMask(_KRSuperResEngine* engine, unsigned char* mask, int capacity, int* width, int* height) {
  const EngineReference reference(engine);
  if (!reference) return false;
  const MaskSize size = ghostMaskSize(engine->width, engine->height, engine->mode == kModeClear);
  const int count = size.width * size.height;
  Lock lock(*engine->frameMutex);
  if (!engine->notes.maskValid || capacity < count) return false;
  std::copy_n(engine->notes.mask, count, mask);
  *width = size.width;
  *height = size.height;
  return true;
}

}  // namespace noxel
