// Start and stop of the registration thread and of its helpers.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "api/threads.h"
#include "platform/log.h"
#include "registration/point_tracker.h"

namespace noxel {
namespace {

// One helper for each further core, up to a number that leaves cores to the application. With fewer, or none, a frame only
// takes longer.
void startWorkers(_KRSuperResEngine* engine) {
  const auto serve = [](void* pool) -> void* {
    static_cast<WorkerPool*>(pool)->serve();
    return nullptr;
  };
  const long wanted = std::min<long>(kMaxRegistrationWorkers, sysconf(_SC_NPROCESSORS_ONLN) - 1);
  int& count = engine->registrationWorkerCount;
  while (count < wanted) {
    if (pthread_create(&engine->registrationWorkerThreads[count], nullptr, serve, &engine->registrationWorkers) != 0) {
      NOXEL_LOG_ERROR("could not start a registration worker: goes on with %d of %ld", count, wanted);
      break;
    }
    ++count;
  }
  if (count > 0) setTrackerWorkers(engine->registration.registration, &engine->registrationWorkers);
}

void stopWorkers(_KRSuperResEngine* engine) {
  engine->registrationWorkers.stop();
  while (engine->registrationWorkerCount > 0) {
    pthread_join(engine->registrationWorkerThreads[--engine->registrationWorkerCount], nullptr);
  }
}

bool allocateRegistration(RegistrationContext* context) {
  const size_t size = static_cast<size_t>(context->width) * static_cast<size_t>(context->height);
  for (uint8_t** image : {&context->luminanceFrames[0], &context->luminanceFrames[1], &context->scratchFrame}) {
    *image = static_cast<uint8_t*>(std::calloc(size, 1));
    if (*image == nullptr) return false;
  }
  return initStabilization(&context->stabilization, 1, 1, context->width, context->height) &&
         createRegistration(context->width, context->height, 1, &context->registration) == 0;
}

// The clear picture needs to know how strong the noise is and what moves by itself.
bool allocateForClear(_KRSuperResEngine* engine) {
  RegistrationContext* context = &engine->registration;
  if (engine->mode != kModeClear) return true;
  if (!context->noise.allocate(engine->width, engine->height) || !enableMotionField(context->registration))
    return false;
  const MotionField field = motionField(*context->registration);
  engine->ahead.blocks = static_cast<BlockMotion*>(
      std::calloc(static_cast<size_t>(field.columns) * static_cast<size_t>(field.rows), sizeof(BlockMotion)));
  if (engine->ahead.blocks == nullptr) return false;
  context->measuresNoise.store(1, std::memory_order_release);
  return true;
}

}  // namespace

int startRegistrationThread(_KRSuperResEngine* engine) {
  RegistrationContext* context = &engine->registration;
  context->log = engine->host.log;
  context->mode = engine->mode;
  context->resolutionFactor = engine->scale;
  context->width = engine->width / engine->scale;
  context->height = engine->height / engine->scale;
  if (!allocateRegistration(context) || !allocateForClear(engine)) {
    NOXEL_LOG_ERROR("no memory for registration");
    return 1;
  }
  startWorkers(engine);
  if (pthread_create(&engine->registrationThread, nullptr, registrationThreadMain, context) != 0) {
    NOXEL_LOG_ERROR("could not start the registration thread");
    return 1;
  }
  engine->registrationThreadStarted = true;
  return 0;
}

void stopRegistrationThread(_KRSuperResEngine* engine) {
  RegistrationContext* context = &engine->registration;
  if (engine->registrationThreadStarted) {
    {
      Lock lock(context->quitMutex);
      context->quitFlag = 1;
    }
    context->registrationRequest.raise();
    context->registrationDone.wait();
    pthread_join(engine->registrationThread, nullptr);
    engine->registrationThreadStarted = false;
  }
  stopWorkers(engine);
  releaseRegistration(&context->registration);
  releaseStabilization(&context->stabilization, 1, 1);
  std::free(engine->ahead.blocks);
  engine->ahead.blocks = nullptr;
  for (uint8_t** image : {&context->luminanceFrames[0], &context->luminanceFrames[1], &context->scratchFrame}) {
    std::free(*image);
    *image = nullptr;
  }
}

}  // namespace noxel
