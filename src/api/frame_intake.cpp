// A frame's way in and out, on the caller's thread.
#include <utility>

#include "api/engine_registry.h"
#include "api/frame_conversion.h"
#include "api/threads.h"
#include "platform/frame_clock.h"
#include "platform/log.h"

namespace noxel {
namespace {

// Milliseconds since the last frame of any engine that reads the same clock; under frameMutex. In double until the end: in
// single precision the seconds since 1970 lose the milliseconds, and an exact 200 ms would count as more.
float takeGap(_KRSuperResEngine* engine) {
  const EngineHost& host = engine->host;
  const platform::TimeOfDay now = host.clock != nullptr ? host.clock(host.clockContext) : platform::frameTime();
  platform::TimeOfDay* last = engine->lastFrameTime;
  const double gap = static_cast<double>(now.seconds - last->seconds) * 1000.0 +
                     static_cast<double>(now.microseconds - last->microseconds) * 0.001;
  *last = now;
  return static_cast<float>(gap);
}

// The next slot to fill, in a buffer that no job reads. After a break a job of the old sequence may still read the slot: the
// spare takes its place, and the old buffer becomes the spare.
unsigned char* slotToFill(_KRSuperResEngine* engine) {
  unsigned char*& slot = engine->frameBuffers[engine->ringIndex];
  if (slot == engine->bufferBeingRead) std::swap(slot, engine->spareBuffer);
  return slot;
}

void resetSequence(_KRSuperResEngine* engine) {
  engine->sequence.fetch_add(1, std::memory_order_relaxed);
  engine->gpu.resetPending.store(1, std::memory_order_release);
  engine->repriming.store(1, std::memory_order_release);
  engine->notes.outputPath = FramePath::kNone;
  engine->framesSinceReset = 0;
  engine->ringIndex = 0;
  engine->uploadIndex = 0;
  engine->queuedFrames.store(0, std::memory_order_release);
  const int countdown = engine->offscreen == 1 ? 1 - engine->outputDelay : 0;
  engine->gpu.outputCountdown.store(countdown, std::memory_order_release);
  // An output of the old sequence that nobody took yet counts as taken.
  Lock lock(engine->callerSignal.mutex);
  if (engine->callerSignal.flag == 1) engine->callerSignal.flag = -1;
  pthread_cond_broadcast(&engine->callerSignal.condition);
}

// Under frameMutex: fills a slot and starts its job. Returns false when the job is left to the caller's thread.
//
// Of a synchronous caller with more than one slot that is impossible: the GPU thread waits for the caller with an earlier
// frame in hand, and the job would wait for the GPU thread. There the frame is taken back.
bool queueFrame(_KRSuperResEngine* engine, const unsigned char* frame, int format, bool counts) {
  unsigned char* slot = slotToFill(engine);
  const int slotIndex = engine->ringIndex;
  copyAndConvertInput(slot, frame, engine->width, engine->height, format);
  if (counts) frameHook(slot, engine->width, engine->height);
  engine->ringIndex = slotIndex + 1 < engine->ringSlots ? slotIndex + 1 : 0;
  if (counts) ++engine->framesSinceReset;
  engine->queuedFrames.fetch_add(1, std::memory_order_acq_rel);
  if (spawnUploadJob(engine, engine->sequence.load(std::memory_order_relaxed))) return true;
  if (engine->syncWithCaller == 0 || engine->ringSlots == 1) return false;
  engine->ringIndex = slotIndex;
  engine->queuedFrames.fetch_sub(1, std::memory_order_acq_rel);
  return true;
}

bool isLive(const _KRSuperResEngine& engine) {
  return engine.initialized.load(std::memory_order_acquire) == 1;
}

struct Intake {
  bool runJobHere;
  bool primed;  // it begins a sequence
  uint32_t sequence;
};

// Breaks and queueing, under frameMutex.
Intake takeIn(_KRSuperResEngine* engine, const unsigned char* frame, int format) {
  Lock lock(*engine->frameMutex);
  const float gap = takeGap(engine);
  if (!isLive(*engine)) return {false, false, 0};
  const bool reset = gap > 1500.0f || (engine->framesSinceReset >= 2 && gap > 200.0f);
  if (reset) resetSequence(engine);
  Intake intake = {false, reset || engine->framesSinceReset == 0, engine->sequence.load(std::memory_order_relaxed)};
  if (engine->queuedFrames.load(std::memory_order_acquire) >= engine->ringSlots) return intake;
  if (engine->syncWithCaller == 1 && engine->framesSinceReset == 0) {
    while (engine->ringIndex < engine->ringSlots - 1) {
      const int before = engine->ringIndex;
      queueFrame(engine, frame, format, false);
      if (engine->ringIndex == before) break;
    }
  }
  intake.runJobHere = !queueFrame(engine, frame, format, true);
  return intake;
}

// Until there is an output to take, or none to come: false.
bool waitForOutput(_KRSuperResEngine* engine) {
  _KRSignal* signal = &engine->callerSignal;
  Lock lock(signal->mutex);
  while (signal->flag != 1 && isLive(*engine) &&
         !(signal->flag == -1 && engine->queuedFrames.load(std::memory_order_acquire) <= 0)) {
    pthread_cond_wait(&signal->condition, &signal->mutex);
  }
  if (signal->flag != 1) return false;
  signal->flag = 0;
  return true;
}

// Of the next frame, as far as it is known.
FramePath pathAhead(const _KRSuperResEngine& engine) {
  const int lightMode = engine.gpu.lightMode.load(std::memory_order_relaxed);
  const bool spatial = lightMode == 1 || (lightMode != 0 && engine.report.status == kRegistrationOff);
  return spatial ? FramePath::kSpatial : FramePath::kTemporal;
}

// Whether the output buffer holds what this call is to return; otherwise its own frame comes back as it came. Under
// frameMutex. The frame that begins a sequence comes back as it came, however soon the enhanced one is there.
bool hasOutput(const _KRSuperResEngine& engine, bool primed, bool waitedFor) {
  if (engine.offscreen == 0 || !isLive(engine)) return false;
  if (engine.syncWithCaller == 1) return waitedFor && !engine.notes.missed;
  return !primed && engine.notes.outputPath == pathAhead(engine);
}

void handBack(_KRSuperResEngine* engine, unsigned char* frame, int format, bool primed, bool waitedFor) {
  Lock lock(*engine->frameMutex);
  if (hasOutput(*engine, primed, waitedFor)) {
    copyAndConvertOutput(frame, engine->frameBuffers[3], engine->width, engine->height, format);
  }
  if (engine->syncWithCaller == 1) engine->callerSignal.raise(-1);
  frameHook(frame, engine->width, engine->height);
}

void KRProcessFrameSync(unsigned char* frame, _KRSuperResEngine* engine) {
  Lock job(engine->jobMutex);
  Lock api(engine->apiMutex);
  const char* refusal = nullptr;
  if (engine->running.load(std::memory_order_acquire) == 1) refusal = "eng->running == 1";
  if (!isLive(*engine)) refusal = "eng->initialized == 0";
  if (refusal != nullptr) {
    NOXEL_LOG_INFO("%s", refusal);
    return;
  }
  engine->running.store(1, std::memory_order_release);
  Frame posted;
  posted.buffer = frame;
  posted.settings = takeSettings(engine->gpu);
  postProcessInPlace(&posted, engine);
  engine->gpu.gpuDone.wait();
  engine->running.store(0, std::memory_order_release);
}

}  // namespace

int KRProcessFrame(unsigned char* frame, _KRSuperResEngine* engine) {
  if (engine == nullptr) {
    NOXEL_LOG_INFO("Engine NULL");
    return 1;
  }
  const EngineReference reference(engine);
  if (!reference || !isLive(*engine)) {
    NOXEL_LOG_INFO("Engine not initialized");
    return 1;
  }
  if (frame == nullptr) {
    NOXEL_LOG_INFO("Frame NULL");
    return 1;
  }
  if (engine->gpu.ready.load(std::memory_order_acquire) == 0)
    return 0;  // nothing to enhance it with: it stays as it came
  if (engine->mode == kModeSynchronousRgba) {
    KRProcessFrameSync(frame, engine);
    return 0;
  }
  joinUploadJobs(engine, Jobs::kEnded);
  const int format = engine->imageFormat.load(std::memory_order_relaxed);
  const Intake intake = takeIn(engine, frame, format);
  if (intake.runJobHere) runUploadJob(engine, intake.sequence);
  const bool waitedFor = engine->syncWithCaller == 1 && waitForOutput(engine);
  handBack(engine, frame, format, intake.primed, waitedFor);
  return 0;
}

}  // namespace noxel
