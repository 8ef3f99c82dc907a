// Start and stop of the registration thread.
#include <cstdlib>

#include "api/threads.h"
#include "platform/log.h"

namespace noxel {

int startRegistrationThread(_KRSuperResEngine* engine) {
  RegistrationContext* context = &engine->registration;
  context->mode = engine->mode;
  context->resolutionFactor = engine->scale;
  context->width = engine->width / engine->scale;
  context->height = engine->height / engine->scale;
  const size_t size = static_cast<size_t>(context->width) * static_cast<size_t>(context->height);
  for (uint8_t** image : {&context->luminanceFrames[0], &context->luminanceFrames[1], &context->scratchFrame}) {
    *image = static_cast<uint8_t*>(std::calloc(size, 1));
    if (*image == nullptr) return 1;
  }
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
  for (uint8_t** image : {&context->luminanceFrames[0], &context->luminanceFrames[1], &context->scratchFrame}) {
    std::free(*image);
    *image = nullptr;
  }
}

}  // namespace noxel
