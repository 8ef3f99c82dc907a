// The pass sequence of a frame.
#include "gl/engine/gpu_engine.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

void setImageSize(LowLightState* state, int width, int height) {
  state->imageWidth = width;
  state->imageHeight = height;
}

void draw(LowLightFilter* filter, int code) {
  filter->state.passCode = code;
  filter->drawPass(true);
}

// The place in the ring `steps` frames after the newest one that is whole.
FrameBuffer* ringImage(const _KRGPUEngine& engine, int steps) {
  return engine.levelImages[0][(engine.historyIndex + steps) % engine.plan->ringLength];
}

// Null for what is no framebuffer of ours: a texture that was uploaded, or the output.
FrameBuffer* frameBufferOf(const _KRGPUEngine& engine, Image image) {
  switch (image) {
    case Image::kSmoothedLuma:
      return engine.packedImages[2];
    case Image::kPast:
      return ringImage(engine, 0);
    case Image::kNext:
      return ringImage(engine, 1);
    case Image::kOldest:
      return ringImage(engine, 2);
    case Image::kCurrent:
      return engine.levelImages[0][2];
    case Image::kSmoothed:
      return engine.levelImages[0][1];
    case Image::kMean:
      return engine.levelImages[0][3];
    case Image::kRawMask:
      return engine.quarterImages[0];
    case Image::kMask:
      return engine.quarterImages[2];
    default:
      return nullptr;
  }
}

GLuint textureOf(const _KRGPUEngine& engine, Image image) {
  switch (image) {
    case Image::kLuma:
      return engine.lumaTexture->GetId();
    case Image::kPackedLuma:
      return engine.packedLumaTexture->GetId();
    case Image::kChroma:
      return engine.chromaTexture->GetId();
    default: {
      const FrameBuffer* frameBuffer = frameBufferOf(engine, image);
      return frameBuffer != nullptr ? frameBuffer->GetTextureId() : 0;
    }
  }
}

// Where the finished picture is read back from. A ring of three leaves levelImages[0][3] to the mean, and its oldest frame is
// done with by the time that the output is drawn.
FrameBuffer* finishedImage(const _KRGPUEngine& engine) {
  return engine.plan->ringLength == 3 && engine.historyCount >= 0 ? ringImage(engine, 2) : engine.levelImages[0][3];
}

// Where the finished picture goes. It is cleared when it is first bound, not before: on a tiled GPU a clear of a target that
// other passes follow costs a store and a load of the whole image.
class OutputTarget {
 public:
  OutputTarget(_KRGPUEngine* gpuEngine, FrameBuffer* offscreenImage) : engine(gpuEngine), image(offscreenImage) {}

  void bind() {
    if (engine->offscreen == 1) {
      engine->lowLight->BindTarget(image);
    } else {
      engine->lowLight->BindTarget(0, 0, engine->outputWidth, engine->outputHeight);
    }
    if (!cleared) engine->lowLight->Clear(0.0f, 0.0f, 0.0f, 0.0f);
    cleared = true;
  }

  void clearUnlessDrawn() {
    if (!cleared) bind();
  }

 private:
  _KRGPUEngine* engine;
  FrameBuffer* image;
  bool cleared = false;
};

void setMapping(_KRGPUEngine* engine, Mapping mapping) {
  LowLightState& state = engine->lowLight->state;
  switch (mapping) {
    case Mapping::kIdentity:
      state.warp = engine->identityTransform;
      break;
    case Mapping::kZoom:
      state.warp = engine->zoomWarp;
      break;
    case Mapping::kStabilized:
      state.warp = engine->stabilizedWarp;
      break;
    case Mapping::kMotion:
      state.warp = engine->motionWarp;
      break;
    case Mapping::kPrevious:
      state.warp = engine->previousFromCurrent;
      break;
    case Mapping::kThreeFrames:
      state.warp = engine->previousFromPicture;
      state.warpLatest = engine->stabilizedWarp;
      state.warpLatestTm = engine->oldestFromPicture;
      break;
  }
}

void setSources(_KRGPUEngine* engine, const Image (&sources)[3]) {
  LowLightState& state = engine->lowLight->state;
  state.texture0 = textureOf(*engine, sources[0]);
  state.texture1 = textureOf(*engine, sources[1]);
  state.texture2 = state.maskTexture = textureOf(*engine, sources[2]);
}

void smoothLuma(_KRGPUEngine* engine, int strength) {
  BilateralFilter* bilateral = engine->bilateral;
  bilateral->gamma = 1.0f;
  bilateral->factor = 15.0f - 0.08f * static_cast<float>(strength);
  bilateral->strength = strength;
  bilateral->apply(engine->packedLumaTexture, engine->packedImages[1], engine->packedImages[2]);
}

// Where accumulated and current frame differ by more than noise, the mask keeps the current frame.
void shapeMask(_KRGPUEngine* engine, int strength) {
  LowLightFilter* filter = engine->lowLight;
  LowLightState& state = filter->state;
  FrameBuffer* const* quarter = engine->quarterImages;
  state.maskWeight = 0.99f - 0.0089f * static_cast<float>(strength);
  setImageSize(&state, quarter[0]->GetWidth(), quarter[0]->GetHeight());
  state.sourceTexture = quarter[0]->GetTextureId();
  state.intermediateFrameBuffer = quarter[1];
  state.targetFrameBuffer = quarter[0];
  draw(filter, kPassMaskErode);
  draw(filter, kPassMaskDilate);
  filter->smoothMask(state.maskInTarget == 1 ? quarter[0] : quarter[1], quarter[2], quarter[3]);
  setImageSize(&state, engine->width, engine->height);
}

void smoothAlongEdges(_KRGPUEngine* engine, const Step& step, int strength) {
  LowLightState& state = engine->lowLight->state;
  state.viewportWidth = engine->width;
  state.viewportHeight = engine->height;
  state.noiseReduction = strength;
  state.sourceTexture = textureOf(*engine, step.sources[0]);
  state.intermediateFrameBuffer = engine->levelImages[0][0];
  state.targetFrameBuffer = frameBufferOf(*engine, step.target);
  draw(engine->lowLight, kPassEdgeAware);
}

void drawSinglePass(_KRGPUEngine* engine, const Step& step, OutputTarget* output) {
  LowLightState& state = engine->lowLight->state;
  if (step.target == Image::kOut) {
    output->bind();
    state.transform = engine->outputTransform;
    state.positionVertices = engine->outputQuad;
  } else {
    engine->lowLight->BindWholeTarget(frameBufferOf(*engine, step.target));
  }
  setSources(engine, step.sources);
  const bool toned = step.tone == Tone::kExposure;
  state.limits[0] = toned ? engine->frameGamma : 1.0f;
  state.limits[1] = toned ? engine->frameGain : 1.0f;
  state.pixelPair[0] = 1.0f / static_cast<float>(engine->width);  // the sharpening's neighbours are a pixel away
  state.pixelPair[1] = 1.0f / static_cast<float>(engine->height);
  draw(engine->lowLight, step.operation);
}

void drawStep(_KRGPUEngine* engine, const Step& step, OutputTarget* output, int strength) {
  engine->lowLight->state.transform = engine->identityTransform;
  setMapping(engine, step.mapping);
  switch (step.operation) {
    case kStepSmoothLuma:
      smoothLuma(engine, strength);
      break;
    case kStepShapeMask:
      shapeMask(engine, strength);
      break;
    case kPassEdgeAware:
      smoothAlongEdges(engine, step, strength);
      break;
    default:
      drawSinglePass(engine, step, output);
      break;
  }
}

// The frame as it was uploaded, for a view side by side.
void drawUntouched(_KRGPUEngine* engine, OutputTarget* output) {
  const bool packed = engine->historyCount == -1;
  LowLightState& state = engine->lowLight->state;
  output->bind();
  setSources(engine, {packed ? Image::kPackedLuma : Image::kLuma, Image::kChroma, Image::kNone});
  setMapping(engine, Mapping::kZoom);
  state.transform = engine->outputTransform;
  state.positionVertices = engine->passThroughQuad;
  state.limits[0] = state.limits[1] = 1.0f;
  draw(engine->lowLight, packed ? kPassPackedYuv : kPassYuv);
}

bool drawsEnhanced(const _KRGPUEngine& engine) {
  return engine.outputQuadEnabled == 1 && engine.enhancementEnabled == 1;
}

void drawPicture(_KRGPUEngine* engine, FrameBuffer* finished, int strength) {
  const bool enhanced = drawsEnhanced(*engine);
  OutputTarget output(engine, finished);
  if (enhanced) {
    for (const Step& step : frameSequence(*engine->plan, engine->historyCount)) {
      drawStep(engine, step, &output, strength);
    }
  }
  if (engine->passThroughQuadEnabled == 1) drawUntouched(engine, &output);
  output.clearUnlessDrawn();
}

// Reads back the mask that the blend has just used. Blocks, and is for looking at pictures.
void captureMask(_KRGPUEngine* engine) {
  const DeliveryNotes* notes = engine->handOver.notes;
  engine->maskCaptured = false;
  if (notes == nullptr || notes->captureMask.load(std::memory_order_acquire) == 0 || engine->historyCount < 1) return;
  FrameBuffer* mask = engine->quarterImages[2];
  mask->ReadPixels(0, 0, mask->GetWidth(), mask->GetHeight(), GL_RGBA, GL_UNSIGNED_BYTE, notes->maskPixels);
  engine->maskCaptured = true;
}

// The output buffer may be written once the caller has taken what it holds.
void waitForCaller(const HandOver& handOver) {
  _KRSignal* signal = handOver.callerSignal;
  Lock lock(signal->mutex);
  while (signal->flag != -1 && handOver.initialized->load(std::memory_order_acquire) == 1) {
    pthread_cond_wait(&signal->condition, &signal->mutex);
  }
  signal->flag = 0;
}

}  // namespace

void processFrame(_KRGPUEngine* engine, int noiseReductionStrength, int deghosting) {
  // A strength beyond 100 would weigh the current frame with nothing and freeze the picture.
  const int strength = noiseReductionStrength < 0 ? 0 : noiseReductionStrength > 100 ? 100 : noiseReductionStrength;
  engine->lowLight->state.deghosting = deghosting;
  setImageSize(&engine->lowLight->state, engine->width, engine->height);
  FrameBuffer* const finished = finishedImage(*engine);
  startWatch(6);
  drawPicture(engine, finished, strength);
  stopWatch("ld", 6);
  if (!drawsEnhanced(*engine)) engine->historyCount = -1;  // nothing was kept of it: the next frame starts history anew
  captureMask(engine);

  engine->texturesLoaded = 0;
  engine->lumaFilled = engine->packedLumaFilled = false;
  engine->historyIndex = (engine->historyIndex + 1) % engine->plan->ringLength;
  if (engine->handOver.syncWithCaller == 1) waitForCaller(engine->handOver);
  startWatch(7);
  if (engine->offscreen == 1) {
    ReadBackYuv(engine, finished, engine->plan->flipsChroma ? engine->flipChroma : 0);
    swapBuffers(engine);
  } else {
    swapBuffers(engine);
    deliver(engine, nullptr);
  }
  stopWatch("rw", 7);
}

void processInPlace(_KRGPUEngine* engine, unsigned char* frame, const InPlaceParameters& parameters) {
  LowLightFilter* filter = engine->lowLight;
  FrameBuffer* output = engine->levelImages[0][0];
  FrameBuffer* targets[3] = {engine->reducedImage, engine->pyramid[0][0], engine->pyramid[0][1]};
  loadRgbaTexture(engine, frame);
  filter->state.scale = parameters.scale;
  filter->state.detailStrength = parameters.detailStrength;
  filter->state.sharpening = parameters.detailStrength;
  filter->setContrast(parameters.contrast);
  filter->state.transform = engine->identityTransform;
  setImageSize(&filter->state, engine->width, engine->height);
  Program* detail = filter->runSyncChain(engine->rgbaTexture->GetId(), targets, false, parameters.rgbaLayout);
  if (detail == nullptr) return;
  filter->BindWholeTarget(output);
  detail->draw(4);
  output->RestartReadBack();  // this frame, and no other
  noteReadBack(engine, readImage(output, frame));
  engine->texturesLoaded = 0;
}

}  // namespace noxel
