// The thread that owns the EGL context and every GL object of an engine.
#include <cstdlib>

#include "api/threads.h"
#include "platform/log.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

// The first frame after a break takes the reset; an older one must not consume the flag.
void takeReset(GpuThreadContext* context, uint32_t frameSequence) {
  Lock lock(*context->handOver.frameMutex);
  if (context->handOver.sequence->load(std::memory_order_relaxed) != frameSequence) return;
  if (context->resetPending.exchange(0, std::memory_order_acq_rel) == 1) resetFirstFrame(context->gpuEngine);
}

void createEngine(GpuThreadContext* context, bool onWindow) {
  if (onWindow) {
    CreateGPUEngineWithWindow(context->gpuWidth, context->gpuHeight, context->window, context->handOver,
                              context->gpuMode, &context->gpuEngine);
  } else {
    CreateGPUEngine(context->gpuWidth, context->gpuHeight, context->handOver, context->gpuMode, &context->gpuEngine);
  }
  if (context->gpuEngine == nullptr) NOXEL_LOG_ERROR("no memory for the GPU engine");
  const bool ready = context->gpuEngine != nullptr && context->gpuEngine->ready;
  context->ready.store(ready ? 1 : 0, std::memory_order_release);
}

bool isReady(const GpuThreadContext& context) {
  return context.ready.load(std::memory_order_relaxed) == 1;
}

// The spatial path reads four luma samples a texel, but in mode 5; the temporal path one.
void loadFrame(GpuThreadContext* context) {
  const Frame& frame = *context->frame;
  const int lightMode = frame.settings.lightMode;
  const bool ring0 = context->gpuMode == kModeThreeFrames;
  const bool spatialByStatus = frame.status == -1 && !ring0 && (lightMode == 0 || lightMode == 1);
  const bool spatialByMode =
      (frame.status == -1 || ring0) && frame.settings.noiseReductionStrength > 0 && lightMode == 1;
  startWatch(5);
  if (context->gpuEngine->plan->lightReadsPacked && (spatialByStatus || spatialByMode)) {
    loadPackedTextures(context->gpuEngine, frame.buffer);
  } else {
    loadTextures(context->gpuEngine, frame.buffer);
  }
  stopWatch("VGL", 5);
}

// Raises gpuDone between taking the frame over and drawing it: the next frame may be loaded into the ring meanwhile.
void process(GpuThreadContext* context) {
  const bool drawn = context->gpuMode >= kModeThreeFrames && context->gpuMode <= kModeClear &&
                     context->gpuMode != kModeSynchronousRgba;
  const uint32_t sequence = context->frame->sequence;
  takeReset(context, sequence);
  if (drawn && isReady(*context)) {
    prepareFrame(context->gpuEngine, *context->frame);
    context->gpuDone.raise();
    processFrame(context->gpuEngine);
  } else {
    context->gpuDone.raise();
    dropFrame(context->handOver, sequence);
  }
  int countdown = context->outputCountdown.load(std::memory_order_acquire);
  while (countdown < 1 &&
         !context->outputCountdown.compare_exchange_weak(countdown, countdown + 1, std::memory_order_acq_rel)) {
  }
}

// Skipped without a usable GL context.
template <typename Load>
void timedLoad(GpuThreadContext* context, Load load) {
  if (!isReady(*context)) return;
  const uint64_t start = KRTimeNow();
  load();
  context->frame->uploadMs += static_cast<double>(KRTimeDiff(start, KRTimeNow())) * 1e-6;
}

// Runs a command that is done when it returns. False for one that answers by itself or not at all.
bool runCommand(GpuThreadContext* context, int command) {
  switch (command) {
    case kCommandCreateOnWindow:
    case kCommandCreateOffscreen:
      createEngine(context, command == kCommandCreateOnWindow);
      return true;
    case kCommandProcess:
      process(context);
      return false;
    case kCommandRelease:
      context->ready.store(0, std::memory_order_release);
      DestroyGPUEngine(&context->gpuEngine);
      return true;
    case kCommandLoad:
      timedLoad(context, [=] { loadFrame(context); });
      return true;
    case kCommandLoadLuma:
      timedLoad(context, [=] { loadPackedTextureYOnly(context->gpuEngine, context->frame->buffer); });
      return true;
    case kCommandLoadChroma:
      timedLoad(context, [=] { loadTextureUVOnly(context->gpuEngine, context->frame->buffer); });
      return true;
    case kCommandPrepareBlends:
      context->blendsPrepared = isReady(*context) && prepareBlends(context->gpuEngine);
      return true;
    case kCommandShow:
      context->shown = isReady(*context) && showFrame(context->gpuEngine, *context->toShow);
      return true;
    case kCommandProcessInPlace:
      if (isReady(*context) && context->gpuMode == kModeSynchronousRgba) {
        processInPlace(context->gpuEngine, *context->frame);
      }
      return true;
    default:
      return false;
  }
}

bool stopRequested(GpuThreadContext* context) {
  Lock lock(context->stopMutex);
  return context->stopFlag != 0;
}

void* gpuThreadMain(void* argument) {
  auto* context = static_cast<GpuThreadContext*>(argument);
  const platform::LogScope log(context->log);
  for (;;) {
    context->gpuRequest.wait();
    if (stopRequested(context)) break;
    if (runCommand(context, context->command)) context->gpuDone.raise();
  }
  context->gpuDone.raise();
  return nullptr;
}

// One frame through the whole chain, so that the first real one finds everything compiled.
void warmUpInPlace(_KRSuperResEngine* engine) {
  const size_t size = static_cast<size_t>(engine->width) * static_cast<size_t>(engine->height) * 4;
  auto* scratch = static_cast<unsigned char*>(std::calloc(size, 1));
  if (scratch == nullptr) {
    NOXEL_LOG_ERROR("no memory for a warm-up frame");
    return;
  }
  Frame frame;
  frame.buffer = scratch;
  frame.settings = takeSettings(engine->gpu);
  postProcessInPlace(&frame, engine);
  engine->gpu.gpuDone.wait();
  std::free(scratch);
  engine->gpu.command = kCommandIdle;
}

}  // namespace

void postCommand(_KRSuperResEngine* engine, GpuCommand command, Frame* frame) {
  engine->gpu.frame = frame;
  engine->gpu.command = command;
  engine->gpu.gpuRequest.raise();
}

void postProcessInPlace(Frame* frame, _KRSuperResEngine* engine) {
  postCommand(engine, kCommandProcessInPlace, frame);
}

int startGPUThread(_KRSuperResEngine* engine) {
  GpuThreadContext* context = &engine->gpu;
  context->gpuWidth = engine->width;
  context->gpuHeight = engine->height;
  context->handOver = {engine->frameBuffers[3],  engine->frameMutex,          &engine->queuedFrames,
                       &engine->sequence,        &engine->initialized,        engine->syncWithCaller,
                       engine->outputDelay,      &engine->callerSignal,       &context->ready,
                       &engine->notes,           engine->host.cacheDirectory, engine->host.shareDisplay,
                       engine->host.shareContext};
  context->log = engine->host.log;
  if (pthread_create(&context->gpuThread, nullptr, gpuThreadMain, context) != 0) {
    NOXEL_LOG_ERROR("could not start the GPU thread");
    return 1;
  }
  context->gpuThreadStarted = true;
  postCommand(engine, engine->offscreen == 1 ? kCommandCreateOffscreen : kCommandCreateOnWindow);
  context->gpuDone.wait();
  context->command = kCommandIdle;
  if (engine->mode == kModeSynchronousRgba) warmUpInPlace(engine);
  return 0;
}

void stopGPUThread(_KRSuperResEngine* engine) {
  GpuThreadContext* context = &engine->gpu;
  if (!context->gpuThreadStarted) return;
  postCommand(engine, kCommandRelease);
  context->gpuDone.wait();
  context->command = kCommandIdle;
  {
    Lock lock(context->stopMutex);
    context->stopFlag = 1;
  }
  context->gpuRequest.raise();
  context->gpuDone.wait();
  pthread_join(context->gpuThread, nullptr);
  context->gpuThreadStarted = false;
}

}  // namespace noxel
