// The threads of an engine and what passes between them.
#pragma once

#include "api/engine.h"

namespace noxel {

// Return when the thread stands (the GPU thread: with its context and resources), or has ended. Starting answers 1 when a
// thread or its memory could not be had; what was made by then is undone by the stopping call, which may follow in any case.
int startGPUThread(_KRSuperResEngine* engine);
void stopGPUThread(_KRSuperResEngine* engine);
int startRegistrationThread(_KRSuperResEngine* engine);
void stopRegistrationThread(_KRSuperResEngine* engine);

// Post a command to the GPU thread; the poster waits on gpuDone afterwards.
void postCommand(_KRSuperResEngine* engine, GpuCommand command, Frame* frame = nullptr);
void postProcessInPlace(Frame* frame, _KRSuperResEngine* engine);

// The parameters as they are now.
FrameSettings takeSettings(const GpuThreadContext& parameters);

// Starts a thread that runs one upload job for a frame of `sequence`. False when no thread could be made. Under frameMutex.
bool spawnUploadJob(_KRSuperResEngine* engine, uint32_t sequence);

// Joins upload jobs: those that have ended, which takes no time, or all.
enum class Jobs { kEnded, kAll };
void joinUploadJobs(_KRSuperResEngine* engine, Jobs which);

// Uploads the next queued frame, has it registered, and posts it for processing. Returns when the frame's buffer is free
// again, or at once, with a log line, when the engine is being released. A frame from before a break is dropped.
void runUploadJob(_KRSuperResEngine* engine, uint32_t sequence);

}  // namespace noxel
