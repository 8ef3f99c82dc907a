// One queued frame on its way: to the GPU, to registration, and to the process command.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/threads.h"
#include "kernels/planes.h"
#include "platform/log.h"
#include "platform/stopwatch.h"
#include "registration/luminance.h"

namespace noxel {
namespace {

void* uploadJobMain(void* argument) {
  auto* job = static_cast<UploadJob*>(argument);
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

struct Claim {
  int slot;
  unsigned char* buffer;  // null: the frame is from before a break
};

Claim claimSlot(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(frameMutex);
  if (engine->sequence.load(std::memory_order_relaxed) != sequence) return {0, nullptr};
  const int slot = engine->uploadIndex;
  engine->uploadIndex = slot + 1 < engine->ringSlots ? slot + 1 : 0;
  engine->bufferBeingRead = engine->frameBuffers[slot];
  return {slot, engine->frameBuffers[slot]};
}

// Refuses or claims under the locks that release and the other jobs take. Null buffer: nothing to do.
Claim admit(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(engine->apiMutex);
  if (const char* reason = refusal(engine); reason != nullptr) {
    NOXEL_LOG_INFO("%s", reason);
    dropFrame(engine->gpu.handOver, sequence);  // takes frameMutex: no frame is in flight beyond here
    return {0, nullptr};
  }
  const Claim claim = claimSlot(engine, sequence);
  if (claim.buffer != nullptr) engine->running.store(1, std::memory_order_release);
  return claim;
}

void postLoad(_KRSuperResEngine* engine, const Claim& claim, GpuCommand command) {
  engine->gpu.commandBuffer = claim.buffer;
  engine->gpu.commandSlot = claim.slot;
  engine->gpu.registrationStatus = engine->frameStatus;
  postCommand(engine, command);
}

// How far smoothing may move a chroma sample, in levels: noise, not the colour of a lamp that is narrower than the means.
int chromaLimit(int strength) {
  return 1 + strength / 16;
}

// Engine mode 0: the chroma is smoothed here while the GPU thread uploads the luma. Such a frame is not registered, so that
// registration's helpers are free.
void uploadSplit(_KRSuperResEngine* engine, const Claim& claim, int strength) {
  int reach = strength / 2;
  if (reach > 15) reach /= 2;
  const int width = engine->width / 2 * 2;
  const int height = engine->height / 2;
  startWatch(1);
  postLoad(engine, claim, kCommandLoadLuma);
  unsigned char* chroma = claim.buffer + static_cast<size_t>(engine->width) * static_cast<size_t>(engine->height);
  const kernels::Plane pairs = kernels::packed(chroma, width, height);
  std::memcpy(engine->chromaAsFilmed, chroma, static_cast<size_t>(width) * static_cast<size_t>(height));
  kernels::smoothChroma(pairs, reach + 1, 4, engine->registration.scratchFrame, &engine->registrationWorkers);
  kernels::limitChange(kernels::packed(engine->chromaAsFilmed, width, height), chromaLimit(strength), pairs);
  stopWatch("Load Y kasky ja UV:n filtterointi", 1);
  startWatch(3);
  engine->gpu.gpuDone.wait();
  stopWatch("y signaali", 3);
  startWatch(2);
  postLoad(engine, claim, kCommandLoadChroma);
  stopWatch("Load UV", 2);
}

// Mode 0 measures no motion where it was not asked to use it.
bool isRegistered(const _KRSuperResEngine& engine, int lightMode) {
  return lightMode == 0 || engine.gpu.gpuMode != kModeThreeFrames;
}

// Which path the frame takes follows from the light mode; a light mode other than 0 and 1 keeps the path it finds. The
// status of the frame before decides which loader fits.
void upload(_KRSuperResEngine* engine, const Claim& claim, int lightMode) {
  RegistrationContext* registration = &engine->registration;
  engine->gpu.commandLightMode = lightMode;
  if (lightMode == 1) {
    registration->registrationResult = kRegistrationOff;
    engine->frameStatus = kRegistrationOff;
    const int strength = std::min(engine->gpu.noiseReductionStrength.load(std::memory_order_relaxed), 100);
    // A texture is at least four samples wide: the luma of a narrower frame is uploaded with the chroma behind it.
    if (engine->gpu.gpuMode == kModeThreeFrames && strength > 0 && engine->width >= 4) {
      uploadSplit(engine, claim, strength);
      return;
    }
  } else if (lightMode == 0 && registration->registrationResult == kRegistrationOff) {
    // Registration is switched on again: what the tracker remembers is from before the light frames.
    registration->registrationResult = kRegistrationFailed;
    engine->frameStatus = kRegistrationFailed;
    registration->firstFrame = 1;
  } else if (!isRegistered(*engine, lightMode)) {
    // The motion that stands there is an older frame's, and so is what the tracker remembers.
    registration->registrationResult = std::min<int>(registration->registrationResult, kRegistrationFailed);
    registration->firstFrame = 1;
  }
  postLoad(engine, claim, kCommandLoad);
}

// A break asks for a fresh start of the tracker, with the first frame after it and no other.
void takeRepriming(_KRSuperResEngine* engine, uint32_t sequence) {
  Lock lock(frameMutex);
  if (engine->sequence.load(std::memory_order_relaxed) != sequence) return;
  if (engine->repriming.exchange(0, std::memory_order_acq_rel) == 1) engine->registration.firstFrame = 1;
}

void submitRegistrationFrame(_KRSuperResEngine* engine, const unsigned char* frame) {
  RegistrationContext* registration = &engine->registration;
  registration->frameSelect = 1 - registration->frameSelect;
  prepareLuminance({engine->width, engine->height, frame}, engine->scale, engine->mode == kModeThreeFrames,
                   registration->luminanceFrames[registration->frameSelect], registration->scratchFrame);
  registration->registrationRequest.raise();
}

// One step a frame. A zoom that is set at the same time wins: the exchange fails and the step is not made.
void easeZoom(GpuThreadContext* gpu, bool stabilizing) {
  float current = gpu->currentZoom.load(std::memory_order_relaxed);
  const float rest = gpu->zoom.load(std::memory_order_relaxed);
  float next = current;
  if (stabilizing) {
    if (static_cast<double>(current) < 1.16) next = static_cast<float>(static_cast<double>(current) + 0.01);
  } else if (current > rest) {
    next = static_cast<float>(static_cast<double>(current) - 0.01);
    if (next < rest) next = rest;
  }
  if (next != current) gpu->currentZoom.compare_exchange_strong(current, next, std::memory_order_relaxed);
}

void takeResults(_KRSuperResEngine* engine, int lightMode) {
  const RegistrationContext& registration = engine->registration;
  FrameParameters* parameters = &engine->frameParameters;
  engine->frameGamma = registration.exposure.smoothedGamma;
  engine->frameGain = registration.exposure.smoothedGain;
  std::memcpy(parameters->frameMatrixA, registration.motionMatrix, sizeof(registration.motionMatrix));
  std::memcpy(parameters->frameMatrixB, registration.inverseMotionMatrix, sizeof(registration.inverseMotionMatrix));
  const bool stabilizing = engine->gpu.useStabilization.load(std::memory_order_relaxed) != 0 && lightMode != 1;
  std::memcpy(parameters->stabilizationTransform, stabilizing ? registration.stabilizationMatrix : kIdentity3x3,
              sizeof(kIdentity3x3));
  easeZoom(&engine->gpu, stabilizing);
  engine->frameStatus = registration.registrationResult;
}

void postProcessFrame(_KRSuperResEngine* engine, const Claim& claim, uint32_t sequence) {
  GpuThreadContext* gpu = &engine->gpu;
  gpu->frameParameters = engine->frameParameters;
  gpu->registrationStatus = engine->frameStatus;
  gpu->frameGamma = engine->frameGamma;
  gpu->frameGain = engine->frameGain;
  gpu->gpuMode = engine->mode;
  gpu->commandBuffer = claim.buffer;
  gpu->commandSequence = sequence;
  postCommand(engine, kCommandProcess);
}

double millisecondsSince(uint64_t start) {
  return static_cast<double>(KRTimeDiff(start, KRTimeNow())) * 1e-6;
}

void fillReport(_KRSuperResEngine* engine, bool startsSequence, double registrationMs) {
  const _KROFRegistration* tracker = engine->registration.registration;
  const bool measured = engine->frameStatus != kRegistrationOff && tracker != nullptr;
  Lock lock(frameMutex);  // an application may ask for the report of a frame that it did not wait for
  FrameReport* report = &engine->report;
  report->status = engine->frameStatus;
  report->gamma = engine->frameGamma;
  report->gain = engine->frameGain;
  report->zoom = engine->gpu.currentZoom.load(std::memory_order_relaxed);
  report->uploadMs = engine->gpu.uploadMs;
  report->registrationMs = registrationMs;
  report->startsSequence = measured && startsSequence;
  report->pointsTracked = measured ? tracker->trackedCount : 0;
  report->pointsKept = measured ? tracker->matchedCount : 0;
  std::memcpy(report->motion, engine->frameParameters.frameMatrixA, sizeof(report->motion));
  std::memcpy(report->stabilization, engine->frameParameters.stabilizationTransform, sizeof(report->stabilization));
}

void processClaimed(_KRSuperResEngine* engine, const Claim& claim, uint32_t sequence) {
  engine->gpu.uploadMs = 0.0;
  startWatch(72);
  const int lightMode = engine->gpu.lightMode.load(std::memory_order_relaxed);
  upload(engine, claim, lightMode);
  double registrationMs = 0.0;
  bool startsSequence = false;
  if (isRegistered(*engine, lightMode)) {
    const uint64_t submitted = KRTimeNow();
    takeRepriming(engine, sequence);
    startsSequence = engine->registration.firstFrame == 1;
    submitRegistrationFrame(engine, claim.buffer);
    engine->registration.registrationDone.wait();
    registrationMs = millisecondsSince(submitted);
  }
  stopWatch("c2s", 72);
  takeResults(engine, lightMode);
  engine->gpu.gpuDone.wait();  // the load
  fillReport(engine, startsSequence, registrationMs);
  postProcessFrame(engine, claim, sequence);
  engine->gpu.gpuDone.wait();
}

}  // namespace

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
    Lock lock(frameMutex);
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
  const Claim claim = admit(engine, sequence);
  if (claim.buffer == nullptr) return;
  processClaimed(engine, claim, sequence);
  {
    Lock lock(frameMutex);
    engine->bufferBeingRead = nullptr;
  }
  engine->running.store(0, std::memory_order_release);
}

}  // namespace noxel
