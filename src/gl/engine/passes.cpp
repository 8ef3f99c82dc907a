// The pass sequence of a frame.
#include "gl/engine/passes.h"

#include <algorithm>

#include "gl/engine/gpu_engine.h"
#include "platform/log.h"
#include "platform/stopwatch.h"

namespace noxel {
namespace {

void setMatrix(Program* program, const char* name, const float* matrix) {
  if (program->Has(name)) program->SetMatrix(matrix, 16, false, name);
}

// The finished picture. Cleared when it is first bound, not before: on a tiled GPU an early clear costs a store and a load of
// the whole image.
class OutputTarget {
 public:
  explicit OutputTarget(_KRGPUEngine* engine) : engine_(engine) {}

  void bind() {
    LowLightFilter& filter = engine_->lowLight;
    if (engine_->offscreen == 1) {
      filter.BindTarget(frameBufferOf(engine_, Image::kOut));
    } else {
      filter.BindTarget(0, 0, engine_->outputWidth, engine_->outputHeight);
    }
    if (!cleared_) filter.Clear(0.0f, 0.0f, 0.0f, 0.0f);
    cleared_ = true;
  }

  void clearUnlessDrawn() {
    if (!cleared_) bind();
  }

 private:
  _KRGPUEngine* engine_;
  bool cleared_ = false;
};

void setMapping(const _KRGPUEngine& engine, Mapping mapping, PassInput* input) {
  switch (mapping) {
    case Mapping::kIdentity:
      break;
    case Mapping::kZoom:
      input->warp = engine.zoomWarp;
      break;
    case Mapping::kStabilized:
      input->warp = engine.stabilizedWarp;
      break;
    case Mapping::kMotion:
      input->warp = engine.motionWarp;
      break;
    case Mapping::kPrevious:
      input->warp = engine.previousFromCurrent;
      break;
    case Mapping::kThreeFrames:
      input->warp = engine.previousFromPicture;
      input->warpLatest = engine.stabilizedWarp;
      input->warpLatestTm = engine.oldestFromPicture;
      break;
  }
}

// output: null where no pass of the sequence draws the finished picture. corners: of what is drawn into it.
void drawOne(_KRGPUEngine* engine, const Pass& pass, OutputTarget* output, const float* corners) {
  PassInput input;
  const Frame& frame = engine->frame;
  input.context = {frame.settings,
                   frame.tone,
                   &frame.noise,
                   &engine->clearFrame,
                   {engine->width, engine->height},
                   imageSize(*engine, pass.reads[0]),
                   imageSize(*engine, pass.writes)};
  if (pass.isDrawn != nullptr && !pass.isDrawn(input.context)) return;
  if (pass.writes == Image::kOut) {
    output->bind();
    input.transform = engine->outputTransform;
    input.corners = corners;
  } else {
    FrameBuffer* target = frameBufferOf(engine, pass.writes);
    if (pass.overdraws) {
      engine->lowLight.BindTarget(target);
    } else {
      engine->lowLight.BindWholeTarget(target);
    }
  }
  for (int i = 0; i < kMaxSamplers; ++i) input.textures[i] = textureOf(engine, pass.reads[i]);
  setMapping(*engine, pass.mapping, &input);
  engine->passTimer.begin(pass.name);
  const bool fast = frame.settings.quality == 0 && pass.fastProgram != kProgramCount;
  drawPass(pass, input, programOf(engine, fast ? pass.fastProgram : pass.program));
  engine->passTimer.end();
}

bool drawsEnhanced(const _KRGPUEngine& engine) {
  return engine.frame.settings.quadBEnabled == 1 && engine.frame.settings.enabled == 1;
}

// Off-screen the finished picture goes into the bytes that are read back, and quads mean nothing.
void drawClear(_KRGPUEngine* engine) {
  for (const Pass& pass : frameSequence(*engine->plan, engine->historyCount)) drawOne(engine, pass, nullptr, nullptr);
  if (engine->offscreen == 1) return;
  const FrameSettings& settings = engine->frame.settings;
  OutputTarget output(engine);
  if (drawsEnhanced(*engine)) {
    for (const Pass& pass : engine->plan->show) drawOne(engine, pass, &output, settings.quadB);
  }
  if (settings.quadAEnabled == 1) drawOne(engine, untouchedPass(false), &output, settings.quadA);
  output.clearUnlessDrawn();
}

void drawPicture(_KRGPUEngine* engine) {
  if (engine->plan->hasCanvas) {
    drawClear(engine);
    return;
  }
  OutputTarget output(engine);
  if (drawsEnhanced(*engine)) {
    for (const Pass& pass : frameSequence(*engine->plan, engine->historyCount)) {
      drawOne(engine, pass, &output, engine->frame.settings.quadB);
    }
  }
  if (engine->frame.settings.quadAEnabled == 1) {
    drawOne(engine, untouchedPass(engine->historyCount == -1), &output, engine->frame.settings.quadA);
  }
  output.clearUnlessDrawn();
}

// Reads back the mask of this blend, in mode 5 the count of frames beside its chroma: of unsigned integers ES 3.0 promises to
// read four of 32 bits. Blocks until the GPU is done; for diagnosis.
void captureMask(_KRGPUEngine* engine) {
  const DeliveryNotes* notes = engine->handOver.notes;
  engine->maskCaptured = false;
  if (notes == nullptr || notes->captureMask.load(std::memory_order_acquire) == 0 || engine->historyCount < 1) return;
  if (engine->plan->hasCanvas) {
    FrameBuffer* blend = frameBufferOf(engine, Image::kBlend);
    blend->ReadPixels(0, 0, blend->GetWidth(), blend->GetHeight(), GL_RGBA_INTEGER, GL_UNSIGNED_INT, notes->maskPixels,
                      GL_COLOR_ATTACHMENT1);
  } else {
    FrameBuffer* mask = frameBufferOf(engine, Image::kMask);
    mask->ReadPixels(0, 0, mask->GetWidth(), mask->GetHeight(), GL_RGBA, GL_UNSIGNED_BYTE, notes->maskPixels);
  }
  engine->maskCaptured = true;
}

// Blocks until the GPU is done.
void keepBlend(_KRGPUEngine* engine) {
  if (engine->keptBlend == nullptr) return;
  FrameBuffer* blend = frameBufferOf(engine, Image::kMerged);
  forgetGLErrors();
  blend->ReadWords(engine->keptBlend, engine->wordScratch);
  if (glGetError() == GL_NO_ERROR) return;
  NOXEL_LOG_ERROR("glReadPixels failed: the blend is not kept");
  std::fill_n(engine->keptBlend, size_t{8} * static_cast<size_t>(blend->width) * static_cast<size_t>(blend->height), 0);
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

void drawPass(const Pass& pass, const PassInput& input, Program* program) {
  if (program == nullptr) return;
  program->Use();
  const ProgramTexts& texts = programTexts(pass.program);
  for (int unit = 0; unit < kMaxSamplers && texts.samplers[unit] != nullptr; ++unit) {
    program->SetTexture(unit, input.textures[unit], texts.samplers[unit]);
  }
  setMatrix(program, "m_Transform", input.transform);
  setMatrix(program, "m_Warp", input.warp);
  setMatrix(program, "m_WarpLatest", input.warpLatest);
  setMatrix(program, "m_WarpLatestTm", input.warpLatestTm);
  for (const Uniform& uniform : pass.uniforms) {
    if (uniform.name == nullptr) break;
    float values[kMaxUniformValues];
    uniform.compute(input.context, values);
    if (uniform.components == 1) {
      program->SetFloat(values[0], uniform.name);
    } else {
      program->SetVector(values, uniform.vectors, uniform.components, uniform.name);
    }
  }
  program->SetAttribute(input.corners, 2, false, 0, program->Has("a_Position") ? "a_Position" : "aPosition");
  program->draw(4);
}

void drawPack(_KRGPUEngine* engine, Image plane) {
  for (const Pass& pass : engine->plan->pack) {
    if (pass.writes == plane) drawOne(engine, pass, nullptr, nullptr);
  }
}

namespace {

void beginTiming(_KRGPUEngine* engine) {
  PassObserver observer = nullptr;
  void* context = nullptr;
  if (const DeliveryNotes* notes = engine->handOver.notes; notes != nullptr) {
    Lock lock(*engine->handOver.frameMutex);
    observer = notes->passObserver;
    context = notes->passObserverContext;
  }
  engine->passTimer.beginFrame(observer, context);
}

}  // namespace

void processFrame(_KRGPUEngine* engine) {
  // A ring of three leaves no buffer for the output, which reuses the oldest: it has been read by then.
  const bool inRing = engine->plan->ringLength == 3 && engine->historyCount >= 0;
  engine->outIndex = inRing ? (engine->historyIndex + 2) % 3 : kMaxLevelImages - 1;
  beginTiming(engine);
  startWatch(6);
  drawPicture(engine);
  stopWatch("ld", 6);
  if (!drawsEnhanced(*engine)) engine->historyCount = -1;  // nothing was kept of it: the next frame starts history anew
  captureMask(engine);
  keepBlend(engine);

  engine->texturesLoaded = 0;
  engine->lumaFilled = engine->packedLumaFilled = false;
  if (!engine->clearFrame.keepsCanvas) engine->historyIndex = (engine->historyIndex + 1) % engine->plan->ringLength;
  if (engine->handOver.syncWithCaller == 1) waitForCaller(engine->handOver);
  startWatch(7);
  if (engine->keptBlend != nullptr) {
    engine->passTimer.report();
    deliver(engine, nullptr);
  } else if (engine->offscreen == 1) {
    ReadBackYuv(engine);
    swapBuffers(engine);
  } else {
    swapBuffers(engine);
    engine->passTimer.report();
    deliver(engine, nullptr);
  }
  stopWatch("rw", 7);
}

bool showFrame(_KRGPUEngine* engine, const ShownFrame& shown) {
  forgetGLErrors();
  loadShownFrame(engine, shown.nv21);
  if (engine->shownFramebuffer == 0) glGenFramebuffers(1, &engine->shownFramebuffer);
  glBindFramebuffer(GL_FRAMEBUFFER, engine->shownFramebuffer);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, shown.texture, 0);
  const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
  if (complete) {
    glViewport(0, 0, shown.width, shown.height);
    const Pass& pass = untouchedPass(false);
    PassInput input;
    input.context.frame = {engine->width, engine->height};
    for (int i = 0; i < kMaxSamplers; ++i) input.textures[i] = textureOf(engine, pass.reads[i]);
    Warp crop;
    crop.m[0] = static_cast<double>(shown.usedWidth) / engine->width;
    crop.m[4] = static_cast<double>(shown.usedHeight) / engine->height;
    float warp[16];
    widen(crop, warp);
    input.warp = warp;
    drawPass(pass, input, programOf(engine, pass.program));
  }
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  glFinish();
  return NOXEL_CHECK_GL("showFrame") && complete;
}

void processInPlace(_KRGPUEngine* engine, const Frame& frame) {
  engine->frame = frame;
  loadRgbaTexture(engine, frame.buffer);
  beginTiming(engine);
  for (const Pass& pass : engine->plan->light) drawOne(engine, pass, nullptr, nullptr);
  FrameBuffer* output = frameBufferOf(engine, Image::kInPlace);
  output->RestartReadBack();  // this frame, and no other
  noteReadBack(engine, readImage(output, frame.buffer));
  engine->passTimer.report();
  engine->texturesLoaded = 0;
}

}  // namespace noxel
