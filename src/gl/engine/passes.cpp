// The pass sequence of a frame.
#include "gl/engine/gpu_engine.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

// Where the finished picture goes. It is cleared when it is first bound, not before: on a tiled GPU a clear of a target that
// other passes follow costs a store and a load of the whole image.
class OutputTarget {
 public:
  explicit OutputTarget(_KRGPUEngine* gpuEngine) : engine(gpuEngine) {}

  void bind() {
    if (engine->offscreen == 1) {
      engine->lowLight->BindTarget(engine->levelImages[0][3]);
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
  bool cleared = false;
};

void setImageSize(LowLightState* state, int width, int height) {
  state->imageWidth = width;
  state->imageHeight = height;
}

void draw(LowLightFilter* filter, PassCode code) {
  filter->state.passCode = code;
  filter->drawPass(true);
}

// A last pass: into the output, through `quad`, with the exposure pair given.
void drawOutput(_KRGPUEngine* engine, OutputTarget* output, PassCode code, const float* quad, float gamma, float gain) {
  LowLightState& state = engine->lowLight->state;
  output->bind();
  state.transform = engine->outputTransform;
  state.positionVertices = quad;
  state.limits[0] = gamma;
  state.limits[1] = gain;
  draw(engine->lowLight, code);
}

void drawTone(_KRGPUEngine* engine, OutputTarget* output, FrameBuffer* picture) {
  LowLightState& state = engine->lowLight->state;
  state.texture0 = picture->GetTextureId();
  state.warp = engine->identityTransform;
  drawOutput(engine, output, kPassTone, engine->outputQuad, engine->frameGamma, engine->frameGain);
}

// Planes of the current frame to RGB under `warp`.
void drawPlanes(_KRGPUEngine* engine, FrameBuffer* target, const float* warp) {
  LowLightState& state = engine->lowLight->state;
  engine->lowLight->BindWholeTarget(target);
  state.texture0 = engine->lumaTexture->GetId();
  state.texture1 = engine->chromaTexture->GetId();
  state.transform = engine->identityTransform;
  state.warp = warp;
  draw(engine->lowLight, kPassBicubicYuv);
}

void drawHistoryStart(_KRGPUEngine* engine, OutputTarget* output, FrameBuffer* next) {
  drawPlanes(engine, next, engine->zoomWarp);
  drawTone(engine, output, next);
}

void drawSpatial(_KRGPUEngine* engine, OutputTarget* output, int strength) {
  BilateralFilter* bilateral = engine->bilateral;
  bilateral->gamma = 1.0f;
  bilateral->factor = 15.0f - 0.08f * static_cast<float>(strength);
  bilateral->strength = strength;
  bilateral->apply(engine->packedLumaTexture, engine->packedImages[1], engine->packedImages[2]);

  LowLightState& state = engine->lowLight->state;
  state.texture0 = engine->packedImages[2]->GetTextureId();
  state.texture1 = engine->chromaTexture->GetId();
  state.warp = engine->zoomWarp;
  drawOutput(engine, output, kPassPackedYuv, engine->outputQuad, engine->frameGamma, engine->frameGain);
}

// Where accumulated and current frame differ by more than noise, the mask keeps the current frame. Ends in
// quarterImages[2].
void drawGhostMask(_KRGPUEngine* engine, FrameBuffer* accumulated, FrameBuffer* current, int strength) {
  LowLightFilter* filter = engine->lowLight;
  LowLightState& state = filter->state;
  FrameBuffer* const* quarter = engine->quarterImages;

  filter->BindWholeTarget(quarter[0]);
  state.texture0 = accumulated->GetTextureId();
  state.texture1 = current->GetTextureId();
  state.transform = engine->identityTransform;
  state.warp = engine->motionWarp;
  draw(filter, kPassGhostMask);

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

void drawTemporal(_KRGPUEngine* engine, OutputTarget* output, FrameBuffer* accumulated, FrameBuffer* next,
                  int strength) {
  LowLightFilter* filter = engine->lowLight;
  LowLightState& state = filter->state;
  FrameBuffer* current = engine->levelImages[0][2];
  drawPlanes(engine, current, engine->stabilizedWarp);
  drawGhostMask(engine, accumulated, current, strength);

  filter->BindWholeTarget(next);
  state.texture0 = accumulated->GetTextureId();
  state.texture1 = current->GetTextureId();
  state.maskTexture = engine->quarterImages[2]->GetTextureId();
  state.transform = engine->identityTransform;
  state.warp = engine->motionWarp;
  draw(filter, kPassDeghostMix);
  drawTone(engine, output, next);
}

// The frame as it came, for a view side by side.
void drawUntouched(_KRGPUEngine* engine, OutputTarget* output) {
  LowLightState& state = engine->lowLight->state;
  const bool packed = engine->historyCount == -1;
  state.texture0 = packed ? engine->packedLumaTexture->GetId() : engine->lumaTexture->GetId();
  state.texture1 = engine->chromaTexture->GetId();
  state.warp = engine->zoomWarp;
  drawOutput(engine, output, packed ? kPassPackedYuv : kPassYuv, engine->passThroughQuad, 1.0f, 1.0f);
}

void drawPicture(_KRGPUEngine* engine, int strength) {
  FrameBuffer* accumulated = engine->levelImages[0][engine->historyIndex];
  FrameBuffer* next = engine->levelImages[0][1 - engine->historyIndex];
  const bool enhanced = engine->outputQuadEnabled == 1 && engine->enhancementEnabled == 1;
  OutputTarget output(engine);
  if (enhanced && engine->historyCount == 0) drawHistoryStart(engine, &output, next);
  if (enhanced && engine->historyCount == -1) drawSpatial(engine, &output, strength);
  if (enhanced && engine->historyCount >= 1) drawTemporal(engine, &output, accumulated, next, strength);
  if (engine->passThroughQuadEnabled == 1) drawUntouched(engine, &output);
  output.clearUnlessDrawn();
  if (!enhanced) engine->historyCount = -1;  // nothing went into `next`: the next frame starts history anew
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
  startWatch(6);
  drawPicture(engine, strength);
  stopWatch("ld", 6);
  captureMask(engine);

  engine->texturesLoaded = 0;
  engine->lumaFilled = engine->packedLumaFilled = false;
  engine->historyIndex = 1 - engine->historyIndex;
  if (engine->handOver.syncWithCaller == 1) waitForCaller(engine->handOver);
  startWatch(7);
  if (engine->offscreen == 1) {
    ReadBackYuv(engine, engine->levelImages[0][3], 0);
    engine->egl->SwapBuffers();
  } else {
    engine->egl->SwapBuffers();
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
  output->ReadPixelsAsync(frame, 1);
  engine->texturesLoaded = 0;
}

}  // namespace noxel
