// The engine record behind the caller's opaque handle, and what the rooms of this folder share.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "api/engine_control.h"
#include "gl/engine/gpu_engine.h"
#include "kernels/worker_pool.h"
#include "platform/signal.h"
#include "registration/motion_field.h"
#include "registration/registration_thread.h"
#include "tonemapping/clear_tone.h"

namespace noxel {

// Values of GpuThreadContext::command.
enum GpuCommand : int {
  kCommandCreateOnWindow = 0,
  kCommandProcess = 1,
  kCommandRelease = 2,
  kCommandIdle = 3,
  kCommandLoad = 4,
  kCommandCreateOffscreen = 5,
  kCommandProcessInPlace = 6,
  kCommandLoadLuma = 7,
  kCommandLoadChroma = 8,
  kCommandPrepareBlends = 9,
  kCommandShow = 10
};

// Argument of the GPU thread. The plain words are the poster's until it raises gpuRequest and the GPU thread's until that
// raises gpuDone; there is one poster at a time, the holder of jobMutex or initialise and release themselves.
struct GpuThreadContext {
  int stopFlag = 0;  // under stopMutex
  pthread_mutex_t stopMutex = PTHREAD_MUTEX_INITIALIZER;
  int gpuMode = 0;
  int command = kCommandIdle;
  int gpuWidth = 0;
  int gpuHeight = 0;
  void* window = nullptr;
  Frame* frame = nullptr;  // of the command; the poster's
  platform::LogTarget* log = nullptr;

  HandOver handOver = {};
  _KRGPUEngine* gpuEngine = nullptr;   // the GPU thread's alone
  bool blendsPrepared = false;         // as the command's fields; mode 5
  const ShownFrame* toShow = nullptr;  // as the command's fields, and so is the next
  bool shown = false;
  std::atomic<int> ready = 0;  // 1 while the GPU engine stands; set before the first gpuDone. The GPU thread's.

  // Parameters. Set by any thread, read by the GPU thread or a job: relaxed, a frame late is fine.
  std::atomic<int> enabled = 1;
  std::atomic<float> zoom = 1.0f;  // 1..32
  std::atomic<float> currentZoom =
      1.0f;  // eased; a job's step is a compare-and-swap, so that a zoom set meanwhile stays
  std::atomic<float> totalzoom = -1.0f;  // 1..32, or not set
  std::atomic<float> quadA[8] = {-1, 1, -1, -1, 1, 1, 1, -1};
  std::atomic<float> quadB[8] = {-1, 1, -1, -1, 1, 1, 1, -1};
  std::atomic<int> quadAEnabled = 0;
  std::atomic<int> quadBEnabled = 1;
  std::atomic<int> useStabilization = 0;
  std::atomic<int> stabilizationForced = 0;
  std::atomic<int> sharpening = 2;
  std::atomic<int> contrast = 30;
  std::atomic<int> deghosting = 5;
  std::atomic<int> noiseReductionStrength = 65;
  std::atomic<int> quality = 1;
  std::atomic<int> flipChroma = 0;
  std::atomic<int> easesLosses = 0;
  std::atomic<int> lightMode = 1;
  std::atomic<int> imageFormatCopy = 17;

  std::atomic<int> outputCountdown = 0;  // frames until the read-back is one to one; acquire/release
  std::atomic<int> resetPending = 0;     // set by the frame path, taken by exchange with a frame of the new sequence

  _KRSignal gpuRequest;
  _KRSignal gpuDone;
  pthread_t gpuThread = {};
  bool gpuThreadStarted = false;
};

// One queued frame's thread. It is joined by a later call or by release: a detached one would still be on its way out of
// the library's code when that is unloaded.
struct UploadJob {
  _KRSuperResEngine* engine;
  uint32_t sequence;                // of its frame
  pthread_t thread = {};            // under frameMutex, as the next
  UploadJob* next = nullptr;        // on the engine's list
  std::atomic<bool> ended = false;  // the thread's last word
};

// A frame that is registered while the one before it is drawn.
struct AheadRegistration {
  // Under jobMutex, as all here.
  const unsigned char* given = nullptr;
  const unsigned char* next = nullptr;   // null: none is known
  const unsigned char* frame = nullptr;  // being registered, or registered; null: none
  bool waits = false;                    // for registrationDone
  bool startsSequence = false;
  double preparationMs = 0;       // of the frame that was registered last
  BlockMotion* blocks = nullptr;  // of the frame that is drawn: registration works on the next one's meanwhile
};

// Beside the registration thread itself.
inline constexpr int kMaxRegistrationWorkers = 3;

}  // namespace noxel

// Allocated zeroed and constructed in place; freed when the last reference is dropped after release.
struct _KRSuperResEngine {
  // Taken in the order jobMutex, apiMutex, frameMutex where several are held; a signal's mutex and the registry's are
  // innermost.
  pthread_mutex_t jobMutex = PTHREAD_MUTEX_INITIALIZER;  // one upload job, or one in-place frame, at a time
  pthread_mutex_t apiMutex =
      PTHREAD_MUTEX_INITIALIZER;  // release against parameters, and the claim of a frame by a job

  int mode = 1;
  int width = 0;
  int height = 0;
  int scale = 1;  // frame pixels per registration pixel: 2 for a side above 1000

  noxel::FrameReport report;  // of the newest frame that was posted; under frameMutex

  // The sequence, under frameMutex; the atomics among them are also read without it.
  int framesSinceReset = 0;
  int ringSlots = 2;
  int outputDelay = 2;
  int ringIndex = 0;                 // next slot to fill
  int uploadIndex = 0;               // next slot a job reads
  bool jobsFail = false;             // the last job's thread could not be made
  noxel::UploadJob* jobs = nullptr;  // not joined yet
  std::atomic<int> queuedFrames = 0;
  std::atomic<uint32_t> sequence = 0;        // raised at each break; jobs and frames carry the number they began with
  std::atomic<int> repriming = 0;            // 1: the next frame of this sequence primes the tracker; taken by exchange
  unsigned char* frameBuffers[4] = {};       // 0..2 input ring, 3 output
  unsigned char* spareBuffer = nullptr;      // takes the place of a slot that is to be filled while a job reads it
  unsigned char* bufferBeingRead = nullptr;  // by the running job
  unsigned char* chromaAsFilmed = nullptr;   // mode 0: the running job's, before it was smoothed

  int syncWithCaller = 0;
  noxel::_KRSignal callerSignal;  // 1 output ready, -1 output taken
  noxel::EngineHost host;
  pthread_mutex_t* frameMutex = nullptr;  // the engines', or with a clock of its own its own, as the next
  noxel::platform::TimeOfDay* lastFrameTime = nullptr;
  pthread_mutex_t ownFrameMutex = PTHREAD_MUTEX_INITIALIZER;
  noxel::platform::TimeOfDay ownLastFrameTime = {};
  int offscreen = 1;
  noxel::DeliveryNotes notes;  // what the GPU thread tells of a delivered frame

  noxel::RegistrationContext registration;
  noxel::ClearTone clearTone;  // mode 5; the running job's
  noxel::AheadRegistration ahead;
  pthread_t registrationThread = {};
  bool registrationThreadStarted = false;
  noxel::WorkerPool registrationWorkers;
  pthread_t registrationWorkerThreads[noxel::kMaxRegistrationWorkers] = {};
  int registrationWorkerCount = 0;
  noxel::GpuThreadContext gpu;

  std::atomic<int> initialized = 0;   // acquire/release
  std::atomic<int> running = 0;       // 1 while a job or an in-place frame runs; acquire/release
  std::atomic<int> imageFormat = 17;  // relaxed; one snapshot a call

  // The registry's, under its mutex.
  int references = 0;
  _KRSuperResEngine* nextLive = nullptr;
};

namespace noxel {

// The sequence state and the output buffers of the engines without a clock of their own, and when the last of them had a
// frame: the one lock that engines share, never held over a wait.
extern pthread_mutex_t frameMutex;
extern platform::TimeOfDay lastFrameTime;

// Bytes of one NV21 or YV12 frame.
inline size_t frameSize(int width, int height) {
  return static_cast<size_t>(static_cast<double>(width) * height * 1.5);
}

// Does nothing: the place where an application's build looks at the frames on their way. Called on each ring slot that was
// filled and on the caller's frame before it is returned.
inline void frameHook(unsigned char* /*frame*/, int /*width*/, int /*height*/) {}

}  // namespace noxel
