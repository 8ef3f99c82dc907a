// One queued frame on its way: to the GPU, to registration, and to the process command.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "api/engine_registry.h"
#include "api/threads.h"
#include "kernels/planes.h"
#include "platform/log.h"
#include "platform/stopwatch.h"
#include "registration/luminance.h"
#include "registration/point_tracker.h"

namespace noxel {
namespace {

void* uploadJobMain(void* argument) {
  auto* job = static_cast<UploadJob*>(argument);
  const platform::LogScope log(job->engine->host.log);
  runUploadJob(job->engine, job->sequence);
  job->ended.store(true, std::memory_order_release);
  return nullptr;
}

const char* refusal(const _KRSuperResEngine* engine) {
  if (engine->running.load(std::memory_order_acquire) == 1) return "already running, return (ei sais)";
  if (engine->initialized.load(std::memory_order_acquire) == 0) {
    return "************************* EISAATANA SAIS TEHA TALLEEN2";
  }
  return nullptr;
}

// The frame's buffer; null: it is from before a break.
unsigned char* claimSlot(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(*engine->frameMutex);
  if (engine->sequence.load(std::memory_order_relaxed) != sequence) return nullptr;
  const int slot = engine->uploadIndex;
  engine->uploadIndex = slot + 1 < engine->ringSlots ? slot + 1 : 0;
  return engine->bufferBeingRead = engine->frameBuffers[slot];
}

// Refuses or claims under the locks that release and the other jobs take. Null: nothing to do.
unsigned char* admit(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(engine->apiMutex);
  if (const char* reason = refusal(engine); reason != nullptr) {
    NOXEL_LOG_INFO("%s", reason);
    dropFrame(engine->gpu.handOver, sequence);  // takes frameMutex: no frame is in flight beyond here
    return nullptr;
  }
  unsigned char* buffer = claimSlot(engine, sequence);
  if (buffer != nullptr) engine->running.store(1, std::memory_order_release);
  return buffer;
}

// How far smoothing may move a chroma sample, in levels: noise, not the colour of a lamp that is narrower than the means.
int chromaLimit(int strength) {
  return 1 + strength / 16;
}

// Engine mode 0: the chroma is smoothed here while the GPU thread uploads the luma. Such a frame is not registered, so that
// registration's helpers are free.
void uploadSplit(_KRSuperResEngine* engine, Frame* frame) {
  const int strength = frame->settings.noiseReductionStrength;
  int reach = strength / 2;
  if (reach > 15) reach /= 2;
  const int width = engine->width / 2 * 2;
  const int height = engine->height / 2;
  startWatch(1);
  postCommand(engine, kCommandLoadLuma, frame);
  unsigned char* chroma = frame->buffer + static_cast<size_t>(engine->width) * static_cast<size_t>(engine->height);
  const kernels::Plane pairs = kernels::packed(chroma, width, height);
  std::memcpy(engine->chromaAsFilmed, chroma, static_cast<size_t>(width) * static_cast<size_t>(height));
  kernels::smoothChroma(pairs, reach + 1, 4, engine->registration.scratchFrame, &engine->registrationWorkers);
  kernels::limitChange(kernels::packed(engine->chromaAsFilmed, width, height), chromaLimit(strength), pairs);
  stopWatch("Load Y kasky ja UV:n filtterointi", 1);
  startWatch(3);
  engine->gpu.gpuDone.wait();
  stopWatch("y signaali", 3);
  startWatch(2);
  postCommand(engine, kCommandLoadChroma, frame);
  stopWatch("Load UV", 2);
}

// Mode 0 measures no motion where it was not asked to use it.
bool isRegistered(const _KRSuperResEngine& engine, const Frame& frame) {
  return frame.settings.lightMode == 0 || engine.mode != kModeThreeFrames;
}

// Which path the frame takes follows from the light mode; a light mode other than 0 and 1 keeps the path it finds.
void choosePath(_KRSuperResEngine* engine, Frame* frame) {
  RegistrationContext* registration = &engine->registration;
  const int lightMode = frame->settings.lightMode;
  if (lightMode == 1) {
    registration->registrationResult = kRegistrationOff;
  } else if (lightMode == 0 && registration->registrationResult == kRegistrationOff) {
    // Registration is switched on again: what the tracker remembers is from before the light frames.
    registration->registrationResult = kRegistrationFailed;
    registration->firstFrame = 1;
  } else if (!isRegistered(*engine, *frame)) {
    // The stored motion and the tracker's memory are both from an older frame.
    registration->registrationResult = std::min<int>(registration->registrationResult, kRegistrationFailed);
    registration->firstFrame = 1;
  }
  frame->status = registration->registrationResult;
}

void upload(_KRSuperResEngine* engine, Frame* frame) {
  const FrameSettings& settings = frame->settings;
  // A texture is at least four samples wide: the luma of a narrower frame is uploaded with the chroma behind it.
  const bool split = engine->mode == kModeThreeFrames && settings.lightMode == 1 &&
                     settings.noiseReductionStrength > 0 && engine->width >= 4;
  if (split) {
    uploadSplit(engine, frame);
  } else {
    postCommand(engine, kCommandLoad, frame);
  }
}

// A break asks for a fresh start of the tracker, with the first frame after it and no other.
bool takeRepriming(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(*engine->frameMutex);
  if (engine->sequence.load(std::memory_order_relaxed) != sequence) return false;
  if (engine->repriming.exchange(0, std::memory_order_acq_rel) == 0) return false;
  engine->registration.firstFrame = 1;
  return true;
}

void submitRegistrationFrame(_KRSuperResEngine* engine, const unsigned char* frame) {
  RegistrationContext* registration = &engine->registration;
  const uint64_t start = KRTimeNow();
  registration->frameSelect = 1 - registration->frameSelect;
  prepareLuminance({engine->width, engine->height, frame}, engine->scale, engine->mode == kModeThreeFrames,
                   registration->luminanceFrames[registration->frameSelect], registration->scratchFrame);
  registration->fullLuma = frame;
  const unsigned char* chroma = frame + static_cast<size_t>(engine->width) * static_cast<size_t>(engine->height);
  registration->fullChroma = {{chroma + 1, chroma}, 2, engine->width / 2 * 2};  // V, U pairs, also of a YV12 frame
  engine->ahead.preparationMs = static_cast<double>(KRTimeDiff(start, KRTimeNow())) * 1e-6;
  registration->registrationRequest.raise();
}

bool stabilizes(const Frame& frame) {
  return frame.settings.useStabilization != 0 && frame.settings.lightMode != 1;
}

// One step a frame. A zoom that is set at the same time wins: the exchange fails and the step is not made.
float easeZoom(GpuThreadContext* gpu, bool stabilizing) {
  float current = gpu->currentZoom.load(std::memory_order_relaxed);
  const float rest = gpu->zoom.load(std::memory_order_relaxed);
  float next = current;
  if (stabilizing) {
    if (static_cast<double>(current) < 1.16) next = static_cast<float>(static_cast<double>(current) + 0.01);
  } else if (current > rest) {
    next = static_cast<float>(static_cast<double>(current) - 0.01);
    if (next < rest) next = rest;
  }
  return gpu->currentZoom.compare_exchange_strong(current, next, std::memory_order_relaxed) ? next : current;
}

void waitForAhead(_KRSuperResEngine* engine) {
  if (engine->ahead.waits) engine->registration.registrationDone.wait();
  engine->ahead.waits = false;
}

// Whether it has been registered while the frame before was drawn. Where that was another one, the tracker begins anew.
bool isRegisteredAhead(_KRSuperResEngine* engine, Frame* frame, bool breaks) {
  AheadRegistration* ahead = &engine->ahead;
  const unsigned char* const known = std::exchange(ahead->frame, nullptr);
  if (known == nullptr) return false;
  if (known != ahead->given) engine->registration.firstFrame = 1;
  if (known != ahead->given || breaks) return false;
  frame->startsSequence = ahead->startsSequence;
  return true;
}

void registerFrame(_KRSuperResEngine* engine, Frame* frame) {
  const bool breaks = takeRepriming(engine, frame->sequence);
  if (!isRegisteredAhead(engine, frame, breaks)) {
    frame->startsSequence = engine->registration.firstFrame == 1;
    engine->registration.easesLosses = frame->settings.easesLosses != 0;
    submitRegistrationFrame(engine, frame->buffer);
    engine->registration.registrationDone.wait();
  }
  frame->registrationMs = engine->ahead.preparationMs + engine->registration.busyMs;
}

// The frame that comes next, while this one is drawn.
void registerAhead(_KRSuperResEngine* engine, const unsigned char* next) {
  if (next == nullptr || engine->mode == kModeThreeFrames) return;
  engine->ahead.frame = next;
  engine->ahead.startsSequence = engine->registration.firstFrame == 1;
  engine->ahead.waits = true;
  submitRegistrationFrame(engine, next);
}

// While chroma's own is not known it is taken for a demosaiced sensor's, measured: about 0.85 and 0.72 of luma's.
void takeNoise(const RegistrationContext& registration, Frame* frame) {
  // Of a frame's rounding, 1 / 12, and as much again for what drawing between pixels misses.
  constexpr float kLeast = 1.0f / 6;
  if (registration.measuresNoise.load(std::memory_order_acquire) == 0) return;
  const NoiseCurve& curve = registration.noise.curve();
  for (int i = 0; i < FrameNoise::kEntries; ++i) {
    const float luma = curve.variance[i];
    frame->noise.luma[i] = std::max(luma, kLeast);
    frame->noise.blue[i] = std::max(curve.chromaKnown ? curve.chromaVariance[0][i] : 0.85f * luma, kLeast);
    frame->noise.red[i] = std::max(curve.chromaKnown ? curve.chromaVariance[1][i] : 0.72f * luma, kLeast);
  }
}

void takeLocalMotion(_KRSuperResEngine* engine, Frame* frame) {
  const RegistrationContext& registration = engine->registration;
  static_assert(sizeof(BlockMotion) == 3 * sizeof(float));
  if (registration.registration == nullptr || registration.registrationResult != kRegistrationValid) return;
  const MotionField field = motionField(*registration.registration);
  if (field.blocks == nullptr || engine->ahead.blocks == nullptr) return;
  const int factor = registration.resolutionFactor;
  BlockMotion* blocks = engine->ahead.blocks;
  std::copy_n(field.blocks, field.columns * field.rows, blocks);
  frame->localMotion = {&blocks->dx,   field.columns, field.rows, kMotionBlockSide * factor, static_cast<float>(factor),
                        kMovesOnItsOwn};
}

void takeResults(_KRSuperResEngine* engine, Frame* frame) {
  const RegistrationContext& registration = engine->registration;
  frame->tone = {registration.exposure.smoothedGamma, registration.exposure.smoothedGain};
  FrameParameters* motion = &frame->motion;
  std::memcpy(motion->frameMatrixA, registration.motionMatrix, sizeof(registration.motionMatrix));
  std::memcpy(motion->frameMatrixB, registration.inverseMotionMatrix, sizeof(registration.inverseMotionMatrix));
  std::memcpy(motion->stabilizationTransform, stabilizes(*frame) ? registration.stabilizationMatrix : kIdentity3x3,
              sizeof(kIdentity3x3));
  frame->status = registration.registrationResult;
  takeNoise(registration, frame);
  takeLocalMotion(engine, frame);
}

// Mode 5. The table is the job's until the GPU thread has taken the frame over.
void followTone(_KRSuperResEngine* engine, Frame* frame) {
  if (engine->mode != kModeClear) return;
  const bool newSequence = frame->startsSequence || frame->status == kRegistrationFailed;
  const int strength = engine->registration.exposureStrength.load(std::memory_order_relaxed);
  engine->clearTone.update(frame->buffer, engine->width, engine->height, engine->width, strength, newSequence);
  frame->toneLevels = engine->clearTone.table().level;
  frame->toneChromaGains = engine->clearTone.table().chromaGain;
}

void fillReport(_KRSuperResEngine* engine, const Frame& frame) {
  const _KROFRegistration* tracker = engine->registration.registration;
  const bool measured = frame.status != kRegistrationOff && tracker != nullptr;
  const bool measuresNoise = engine->registration.measuresNoise.load(std::memory_order_acquire) == 1;
  Lock lock(*engine->frameMutex);  // an application may ask for the report of a frame that it did not wait for
  FrameReport* report = &engine->report;
  report->status = frame.status;
  report->gamma = frame.tone.gamma;
  report->gain = frame.tone.gain;
  report->zoom = frame.settings.zoom;
  report->uploadMs = frame.uploadMs;
  report->registrationMs = frame.registrationMs;
  report->startsSequence = measured && frame.startsSequence;
  report->pointsTracked = measured ? tracker->trackedCount : 0;
  report->pointsKept = measured ? tracker->matchedCount : 0;
  if (frame.toneLevels != nullptr) std::copy_n(frame.toneLevels, std::size(report->toneLevels), report->toneLevels);
  report->noise = measuresNoise ? engine->registration.noise.curve() : NoiseCurve{};
  std::memcpy(report->previousFromCurrent, frame.motion.frameMatrixA, sizeof(report->previousFromCurrent));
  std::memcpy(report->stabilizedFromCurrent, frame.motion.stabilizationTransform,
              sizeof(report->stabilizedFromCurrent));
}

void process(_KRSuperResEngine* engine, Frame* frame) {
  startWatch(72);
  waitForAhead(engine);
  const unsigned char* const next =
      engine->ahead.next;  // another call may say another one as soon as the frame is drawn
  frame->settings = takeSettings(engine->gpu);
  frame->settings.zoom = easeZoom(&engine->gpu, stabilizes(*frame));
  choosePath(engine, frame);
  upload(engine, frame);
  if (isRegistered(*engine, *frame)) registerFrame(engine, frame);
  stopWatch("c2s", 72);
  engine->gpu.gpuDone.wait();  // the load
  takeResults(engine, frame);
  followTone(engine, frame);
  fillReport(engine, *frame);
  postCommand(engine, kCommandProcess, frame);
  registerAhead(engine, next);
  engine->gpu.gpuDone.wait();
}

}  // namespace

void announceFrames(_KRSuperResEngine* engine, const unsigned char* given, const unsigned char* next) {
  const EngineReference reference(engine);
  if (!reference) return;
  Lock job(engine->jobMutex);
  engine->ahead.given = given;
  engine->ahead.next = next;
}

void finishAhead(_KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (!reference) return;
  Lock job(engine->jobMutex);
  waitForAhead(engine);
}

bool spawnUploadJob(_KRSuperResEngine* engine, uint32_t sequence) {
  void* memory = std::malloc(sizeof(UploadJob));
  UploadJob* job = memory != nullptr ? new (memory) UploadJob{engine, sequence} : nullptr;
  if (job != nullptr && pthread_create(&job->thread, nullptr, uploadJobMain, job) == 0) {
    job->next = engine->jobs;
    engine->jobs = job;
    engine->jobsFail = false;
    return true;
  }
  // Once, and not with each frame while it lasts.
  if (!engine->jobsFail)
    NOXEL_LOG_ERROR(job == nullptr ? "no memory for an upload job" : "could not start an upload job");
  engine->jobsFail = true;
  std::free(job);
  return false;
}

void joinUploadJobs(_KRSuperResEngine* engine, Jobs which) {
  UploadJob* joined = nullptr;
  {
    Lock lock(*engine->frameMutex);
    for (UploadJob** link = &engine->jobs; *link != nullptr;) {
      UploadJob* job = *link;
      if (which == Jobs::kEnded && !job->ended.load(std::memory_order_acquire)) {
        link = &job->next;
        continue;
      }
      *link = job->next;
      job->next = joined;
      joined = job;
    }
  }
  while (joined != nullptr) {
    UploadJob* job = joined;
    joined = job->next;
    pthread_join(job->thread, nullptr);
    std::free(job);
  }
}

void runUploadJob(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock job(engine->jobMutex);
  Frame frame;
  frame.buffer = admit(engine, sequence);
  frame.sequence = sequence;
  if (frame.buffer == nullptr) return;
  process(engine, &frame);
  {
    Lock lock(*engine->frameMutex);
    engine->bufferBeingRead = nullptr;
  }
  engine->running.store(0, std::memory_order_release);
}

}  // namespace noxel
