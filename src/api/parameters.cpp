// Parameters: stored here, read by the GPU thread and the jobs with their next frame.
#include <algorithm>
#include <cstring>

#include "api/engine_registry.h"
#include "api/threads.h"
#include "platform/log.h"

namespace noxel {
namespace {

int readInt(const void* value) {
  int read = 0;
  std::memcpy(&read, value, sizeof(read));
  return read;
}

float readFloat(const void* value) {
  float read = 0.0f;
  std::memcpy(&read, value, sizeof(read));
  return read;
}

void store(std::atomic<int>* word, const char* name, const void* value) {
  const int given = readInt(value);
  NOXEL_LOG_VERBOSE("KRSetParameter %s value given = %d\n", name, given);
  word->store(given, std::memory_order_relaxed);
}

// 1..32; what is not a number is too large.
float limitedZoom(float value) {
  if (!(value <= 32.0f)) value = 32.0f;
  return value < 1.0f ? 1.0f : value;
}

void setZoom(GpuThreadContext* gpu, const void* value) {
  const float given = readFloat(value);
  NOXEL_LOG_VERBOSE("KRSetParameter zoom value given = %f\n", static_cast<double>(given));
  const float zoom = limitedZoom(given);
  gpu->zoom.store(zoom, std::memory_order_relaxed);
  gpu->currentZoom.store(zoom, std::memory_order_relaxed);
}

void setTotalZoom(GpuThreadContext* gpu, const void* value) {
  const float given = readFloat(value);
  NOXEL_LOG_VERBOSE("KRSetParameter totalzoom value given = %f\n", static_cast<double>(given));
  gpu->totalzoom.store(limitedZoom(given), std::memory_order_relaxed);
}

void setQuad(std::atomic<float> (&quad)[8], std::atomic<int>* enabled, const void* value) {
  if (value != nullptr) {
    float corners[8];
    std::memcpy(corners, value, sizeof(corners));
    for (int i = 0; i < 8; ++i) quad[i].store(corners[i], std::memory_order_relaxed);
  }
  enabled->store(value != nullptr ? 1 : 0, std::memory_order_relaxed);
}

void setImageFormat(_KRSuperResEngine* engine, const void* value) {
  const int format = readInt(value);
  NOXEL_LOG_VERBOSE("KRSetParameter KRSUPERPHOTO_IMAGEFORMAT value = %d", format);
  engine->imageFormat.store(format, std::memory_order_relaxed);
  engine->gpu.imageFormatCopy.store(format, std::memory_order_relaxed);
}

void setExposureStrength(_KRSuperResEngine* engine, const void* value) {
  const int given = readInt(value);
  engine->registration.exposureStrength.store(given < 0 ? 0 : given >= 100 ? 100 : given, std::memory_order_relaxed);
}

bool readsValue(unsigned id) {
  return id != kParamQuadA && id != kParamQuadB && id != kParamForceStabilization;
}

// Waits for a release that has begun.
bool isInitialized(_KRSuperResEngine* engine) {
  Lock lock(engine->apiMutex);
  return engine->initialized.load(std::memory_order_acquire) == 1;
}

int dispatch(unsigned id, const void* value, _KRSuperResEngine* engine) {
  GpuThreadContext* gpu = &engine->gpu;
  if (value == nullptr && readsValue(id)) {
    NOXEL_LOG_ERROR("setparam value == NULL");
    return 1;
  }
  switch (id) {
    case kParamEnabled:
      store(&gpu->enabled, "enabled", value);
      return 0;
    case kParamZoom:
    case kParamZoomAlias:
      setZoom(gpu, value);
      return 0;
    case kParamQuadA:
      setQuad(gpu->quadA, &gpu->quadAEnabled, value);
      return 0;
    case kParamQuadB:
      setQuad(gpu->quadB, &gpu->quadBEnabled, value);
      return 0;
    case kParamStabilization:
    case kParamStabilizationAlias:
      store(&gpu->useStabilization, "useStabilization", value);
      return 0;
    case kParamSharpening:
      store(&gpu->sharpening, "sharpening", value);
      return 0;
    case kParamContrast:
      store(&gpu->contrast, "contrast", value);
      return 0;
    case kParamDeghosting:
      store(&gpu->deghosting, "deghosting", value);
      return 0;
    case kParamNoiseReductionStrength:
      store(&gpu->noiseReductionStrength, "noiseReductionStrength", value);
      return 0;
    case kParamForceStabilization:
      gpu->useStabilization.store(1, std::memory_order_relaxed);
      gpu->stabilizationForced.store(1, std::memory_order_relaxed);
      return 0;
    case kParamFlipChroma:
      store(&gpu->flipChroma, "flipChroma", value);
      NOXEL_LOG_VERBOSE("Flip chroma parameter = %d", readInt(value));
      return 0;
    case kParamLightMode:
      store(&gpu->lightMode, "lightMode", value);
      NOXEL_LOG_VERBOSE("Light mode parameter = %d", readInt(value));
      return 0;
    case kParamImageFormat:
      setImageFormat(engine, value);
      return 0;
    case kParamTotalZoom:
      setTotalZoom(gpu, value);
      return 0;
    case kParamExposureStrength:
      setExposureStrength(engine, value);
      return 0;
    case kParamQuality:
      store(&gpu->quality, "quality", value);
      return 0;
    default:
      return 1;
  }
}

}  // namespace

FrameSettings takeSettings(const GpuThreadContext& parameters) {
  const auto word = [](const auto& parameter) { return parameter.load(std::memory_order_relaxed); };
  const auto percent = [&word](const std::atomic<int>& parameter) { return std::clamp(word(parameter), 0, 100); };
  FrameSettings settings;
  settings.enabled = word(parameters.enabled);
  settings.zoom = word(parameters.currentZoom);
  settings.totalzoom = word(parameters.totalzoom);
  for (int i = 0; i < 8; ++i) {
    settings.quadA[i] = word(parameters.quadA[i]);
    settings.quadB[i] = word(parameters.quadB[i]);
  }
  settings.quadAEnabled = word(parameters.quadAEnabled);
  settings.quadBEnabled = word(parameters.quadBEnabled);
  settings.useStabilization = word(parameters.useStabilization);
  settings.noiseReductionStrength = percent(parameters.noiseReductionStrength);
  settings.deghosting = word(parameters.deghosting);
  settings.quality = std::clamp(word(parameters.quality), 0, 2);
  settings.sharpening = static_cast<float>(percent(parameters.sharpening));
  settings.contrast = static_cast<float>(percent(parameters.contrast));
  settings.flipChroma = word(parameters.flipChroma);
  settings.easesLosses = word(parameters.easesLosses);
  settings.lightMode = word(parameters.lightMode);
  settings.imageFormat = word(parameters.imageFormatCopy);
  return settings;
}

int KRSetParameter(unsigned internalId, const void* value, _KRSuperResEngine* engine) {
  const EngineReference reference(engine);
  if (engine == nullptr) {
    NOXEL_LOG_ERROR("setparam eng == NULL");
    return 1;
  }
  if (!reference || !isInitialized(engine)) {
    NOXEL_LOG_ERROR("eng not initialized");
    return 1;
  }
  NOXEL_LOG_VERBOSE("engine %p", static_cast<void*>(engine));
  return dispatch(internalId, value, engine);
}

}  // namespace noxel
