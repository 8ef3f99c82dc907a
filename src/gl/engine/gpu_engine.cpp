#include "gl/engine/gpu_engine.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "filters/program_fingerprint.h"
#include "platform/cache_directory.h"
#include "platform/log.h"

namespace noxel {
namespace {

bool isRgbaMode(const _KRGPUEngine& engine) {
  return engine.mode == 4;
}

bool readsBackYuv(const _KRGPUEngine& engine) {
  return engine.offscreen == 1 && !isRgbaMode(engine);
}

// A quotient of a tiny frame's size may be 0, and an image without pixels is incomplete.
int part(int size, int divisor) {
  return std::max(size / divisor, 1);
}

// Every object of the record, each for the modes that have it. False when memory ran out.
bool allocateObjects(_KRGPUEngine* engine) {
  bool complete = true;
  const auto make = [&complete](auto** object) {
    *object = new (std::nothrow) std::remove_reference_t<decltype(**object)>();
    complete = complete && *object != nullptr;
  };
  make(&engine->egl);
  make(&engine->reducedImage);
  make(&engine->lowLight);
  if (isRgbaMode(*engine)) {
    make(&engine->rgbaTexture);
    make(&engine->levelImages[0][0]);
    for (FrameBuffer*& image : engine->pyramid[0]) make(&image);
    return complete;
  }
  for (auto& level : engine->levelImages) {
    for (FrameBuffer*& image : level) make(&image);
  }
  for (auto& level : engine->pyramid) {
    for (FrameBuffer*& image : level) make(&image);
  }
  for (FrameBuffer*& image : engine->packedImages) make(&image);
  for (FrameBuffer*& image : engine->quarterImages) make(&image);
  make(&engine->bilateral);
  make(&engine->yuvToRgb);
  make(&engine->packedLumaTexture);
  make(&engine->lumaTexture);
  make(&engine->chromaTexture);
  if (!readsBackYuv(*engine)) return complete;
  make(&engine->lumaOutput);
  make(&engine->chromaOutput);
  for (RgbToYuvFilter*& filter : engine->rgbToYuv) make(&filter);
  engine->readBackFrame = static_cast<unsigned char*>(std::calloc(engine->lumaSize + engine->lumaSize / 2, 1));
  return complete && engine->readBackFrame != nullptr;
}

// False when an image cannot be drawn into.
bool CreateResources(_KRGPUEngine* engine) {
  const int width = engine->width;
  const int height = engine->height;
  bool complete = true;
  const auto image = [&complete](FrameBuffer* target, int imageWidth, int imageHeight, GLenum filter = GL_LINEAR) {
    target->Init(imageWidth, imageHeight, GL_RGBA, filter);
    complete = complete && target->IsComplete();
  };

  image(engine->reducedImage, std::max(static_cast<int>(width * 0.75), 1),
        std::max(static_cast<int>(height * 0.75), 1));
  if (isRgbaMode(*engine)) {
    engine->rgbaTexture->Init(width, height, GL_RGBA);
    image(engine->levelImages[0][0], width, height);
    engine->levelImages[0][0]->InitPixelBuffers(width * height * 4, engine->handOver.outputDelay);
    image(engine->pyramid[0][0], part(width, 2), part(height, 2));
    image(engine->pyramid[0][1], part(width, 4), part(height, 4));
    image(engine->pyramid[0][2], part(width, 4), part(height, 4));
    return complete;
  }

  engine->packedLumaTexture->Init(part(width, 4), height, GL_RGBA, GL_NEAREST);
  engine->lumaTexture->Init(width, height, GL_LUMINANCE);
  engine->chromaTexture->Init(part(width, 2), part(height, 2), GL_LUMINANCE_ALPHA);
  for (int s = 1; s <= 2; ++s) {
    for (FrameBuffer* level : engine->levelImages[s - 1]) image(level, part(width, s), part(height, s));
    image(engine->pyramid[s - 1][0], part(width, 2 * s), part(height, 2 * s));
    image(engine->pyramid[s - 1][1], part(width, 4 * s), part(height, 4 * s));
    image(engine->pyramid[s - 1][2], part(width, 4 * s), part(height, 4 * s));
  }
  image(engine->packedImages[0], part(width, 4), height, GL_NEAREST);
  image(engine->packedImages[1], part(width, 4), part(height, 2), GL_NEAREST);
  image(engine->packedImages[2], part(width, 4), height, GL_NEAREST);
  const int quarterWidth = part(width, 4);
  const int quarterHeight = part(height, 4);
  image(engine->quarterImages[0], quarterWidth, quarterHeight);
  image(engine->quarterImages[1], quarterWidth, quarterHeight);
  const MaskSize mask = ghostMaskSize(width, height);
  image(engine->quarterImages[2], mask.width, mask.height);
  image(engine->quarterImages[3], mask.width, mask.height);
  if (!readsBackYuv(*engine)) return complete;
  image(engine->lumaOutput, part(width, 4), height, GL_NEAREST);
  engine->lumaOutput->InitPixelBuffers(width / 4 * height * 4, engine->handOver.outputDelay);
  image(engine->chromaOutput, part(width, 4), part(height, 2), GL_NEAREST);
  engine->chromaOutput->InitPixelBuffers(width / 4 * height / 2 * 4, engine->handOver.outputDelay);
  return complete;
}

bool LoadShaders(_KRGPUEngine* engine) {
  const CacheDirectory directory = openProgramCache(platform::programCacheDirectory(), shaders::kProgramFingerprint);
  engine->lowLight->syncMode = isRgbaMode(*engine);
  bool complete = engine->lowLight->setupPrograms(directory) && engine->lowLight->drawsEverything();
  if (!isRgbaMode(*engine)) {
    complete = engine->bilateral->setupPrograms(directory) && complete;
    complete = engine->yuvToRgb->setupPrograms(directory) && complete;
  }
  if (readsBackYuv(*engine)) {
    for (RgbToYuvFilter* filter : engine->rgbToYuv) complete = filter->setupPrograms(directory) && complete;
  }
  glReleaseShaderCompiler();
  return complete;
}

void SetUp(_KRGPUEngine* engine, void* window) {
  if (!allocateObjects(engine)) {
    NOXEL_LOG_ERROR("no memory for the GPU engine");
    return;
  }
  if (engine->egl->Initialize(engine->width, engine->height, window) != 1) return;
  engine->lowLight->reducedPrograms = engine->mode == 1;
  engine->historyIndex = isRgbaMode(*engine) ? 0 : 1;
  const bool complete = CreateResources(engine);
  const bool resourcesMade = NOXEL_CHECK_GL("CreateResources") && complete;
  engine->ready = LoadShaders(engine) && resourcesMade;
}

void create(int width, int height, void* window, const HandOver& handOver, int mode, _KRGPUEngine** result) {
  void* memory = std::malloc(sizeof(_KRGPUEngine));
  if (memory == nullptr) return;
  auto* engine = new (memory) _KRGPUEngine();
  *result = engine;
  engine->mode = mode;
  engine->plan = &modePlan(mode);
  engine->width = width;
  engine->height = height;
  engine->outputWidth = width;
  engine->outputHeight = height;
  engine->lumaSize = static_cast<size_t>(width) * static_cast<size_t>(height);
  engine->offscreen = window == nullptr ? 1 : 0;
  engine->handOver = handOver;
  SetUp(engine, window);
  if (!engine->ready) NOXEL_LOG_ERROR("the GPU engine is not usable: frames are returned as they came");
}

template <typename Object>
void releaseAndDelete(Object*& object, EGLEngine* egl) {
  if (object != nullptr) object->Release(egl);
  delete object;
  object = nullptr;
}

template <typename Filter>
void releaseAndDelete(Filter*& filter) {
  if (filter != nullptr) filter->Release();
  delete filter;
  filter = nullptr;
}

// Objects that never got a GL name make no GL call in their Release, so this undoes a set-up that stopped anywhere.
void ReleaseResources(_KRGPUEngine* engine) {
  EGLEngine* egl = engine->egl;
  releaseAndDelete(engine->reducedImage, egl);
  for (Texture** texture :
       {&engine->rgbaTexture, &engine->lumaTexture, &engine->packedLumaTexture, &engine->chromaTexture}) {
    releaseAndDelete(*texture, egl);
  }
  for (int s = 0; s < 2; ++s) {
    for (FrameBuffer*& image : engine->levelImages[s]) releaseAndDelete(image, egl);
    for (FrameBuffer*& image : engine->pyramid[s]) releaseAndDelete(image, egl);
  }
  for (FrameBuffer*& image : engine->packedImages) releaseAndDelete(image, egl);
  for (FrameBuffer*& image : engine->quarterImages) releaseAndDelete(image, egl);
  releaseAndDelete(engine->lumaOutput, egl);
  releaseAndDelete(engine->chromaOutput, egl);
}

}  // namespace

MaskSize ghostMaskSize(int frameWidth, int frameHeight) {
  return {part(part(frameWidth, 4), 2), part(part(frameHeight, 4), 2)};
}

void CreateGPUEngine(int width, int height, const HandOver& handOver, int mode, _KRGPUEngine** result) {
  create(width, height, nullptr, handOver, mode, result);
}

void CreateGPUEngineWithWindow(int width, int height, void* window, const HandOver& handOver, int mode,
                               _KRGPUEngine** result) {
  create(width, height, window, handOver, mode, result);
  if (*result != nullptr && (*result)->egl != nullptr) (*result)->egl->PrintEGLInfo();
}

void DestroyGPUEngine(_KRGPUEngine** handle) {
  _KRGPUEngine* engine = *handle;
  if (engine == nullptr) return;
  *handle = nullptr;
  ReleaseResources(engine);
  for (RgbToYuvFilter*& filter : engine->rgbToYuv) releaseAndDelete(filter);
  releaseAndDelete(engine->lowLight);
  releaseAndDelete(engine->bilateral);
  releaseAndDelete(engine->yuvToRgb);
  if (engine->egl != nullptr) engine->egl->Release();
  delete engine->egl;
  std::free(engine->readBackFrame);
  engine->~_KRGPUEngine();
  std::free(engine);
}

void resetFirstFrame(_KRGPUEngine* engine) {
  if (engine == nullptr) return;
  engine->stage = 0;
  if (engine->lumaOutput != nullptr) engine->lumaOutput->RestartReadBack();
  if (engine->chromaOutput != nullptr) engine->chromaOutput->RestartReadBack();
}

}  // namespace noxel
