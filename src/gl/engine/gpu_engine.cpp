#include "gl/engine/gpu_engine.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <span>

#include "filters/program_fingerprint.h"
#include "platform/cache_directory.h"
#include "platform/log.h"

namespace noxel {
namespace {

bool isRgbaMode(const _KRGPUEngine& engine) {
  return engine.mode == 4;
}

// The image whose framebuffer an image is in.
Image framebufferImage(Image image) {
  switch (image) {
    case Image::kDrawnPastColour:
    case Image::kSteady:  // the past has been blended by then
    case Image::kSteadyColour:
      return Image::kDrawnPast;
    case Image::kBlendColour:
      return Image::kBlend;
    case Image::kOfferedColour:
      return Image::kOffered;
    case Image::kMergedColour:
      return Image::kMerged;
    default:
      return image;
  }
}

bool isSecond(Image image) {
  return image == Image::kDrawnPastColour || image == Image::kSteadyColour || image == Image::kBlendColour ||
         image == Image::kCanvasColour || image == Image::kNextCanvasColour || image == Image::kOfferedColour ||
         image == Image::kMergedColour || image == Image::kPictureColour;
}

int ownIndex(Image image) {
  return kMaxLevelImages + static_cast<int>(image) - static_cast<int>(Image::kHalfLuma);
}

// Index of an image in frameBuffers, -1 for one that is no framebuffer. The images of the frame's size share four: the ring
// takes the first ones.
int frameBufferIndex(const _KRGPUEngine& engine, Image image) {
  const auto inRing = [&engine](int steps) { return (engine.historyIndex + steps) % engine.plan->ringLength; };
  switch (image) {
    case Image::kPast:
      return inRing(0);
    case Image::kNext:
      return inRing(1);
    case Image::kOldest:
      return inRing(2);
    case Image::kWideSmoothed:
    case Image::kInPlace:
      return 0;
    case Image::kSmoothed:
      return 1;
    case Image::kCurrent:
      return 2;
    case Image::kMean:
      return 3;
    case Image::kOut:
      return engine.offscreen == 1 ? engine.outIndex : -1;
    case Image::kCanvas:
    case Image::kCanvasColour:
      return ownIndex(engine.historyIndex == 0 ? Image::kCanvas : Image::kNextCanvas);
    case Image::kPicture:
    case Image::kPictureColour:
      return ownIndex(engine.clearFrame.merges ? Image::kMerged : Image::kBlend);
    case Image::kNextCanvas:
    case Image::kNextCanvasColour:
      return ownIndex(engine.historyIndex == 0 ? Image::kNextCanvas : Image::kCanvas);
    default:
      return image < Image::kHalfLuma || image >= Image::kCount ? -1 : ownIndex(framebufferImage(image));
  }
}

// Null for what a pass draws.
const Texture* uploadedTexture(const _KRGPUEngine& engine, Image image) {
  switch (image) {
    case Image::kLuma:
      return &engine.lumaTexture;
    case Image::kPackedLuma:
      return &engine.packedLumaTexture;
    case Image::kChroma:
      return &engine.chromaTexture;
    case Image::kRgba:
      return &engine.rgbaTexture;
    case Image::kToneTable:
      return &engine.toneTexture;
    case Image::kLocalMotion:
      return &engine.localMotionTexture;
    case Image::kSelector:
      return &engine.selectorTexture;
    default:
      return nullptr;
  }
}

// At least 1: an image without pixels is incomplete.
int part(int size, int divisor) {
  return std::max(size / divisor, 1);
}

ImageSize sizeFor(const _KRGPUEngine& engine, Image image) {
  const int width = engine.width;
  const int height = engine.height;
  switch (image) {
    case Image::kHalfLuma:
    case Image::kChromaBytes:
      return {part(width, 4), part(height, 2)};
    case Image::kSmoothedLuma:
    case Image::kLumaBytes:
      return {part(width, 4), height};
    case Image::kRawMask:
    case Image::kMaskScratch:
    case Image::kQuarter:
      return {part(width, 4), part(height, 4)};
    case Image::kMask:
    case Image::kSmallScratch: {
      const MaskSize mask = ghostMaskSize(width, height, false);
      return {mask.width, mask.height};
    }
    case Image::kReduced:
      return {std::max(static_cast<int>(width * 0.75), 1), std::max(static_cast<int>(height * 0.75), 1)};
    case Image::kHalf:
      return {part(width, 2), part(height, 2)};
    case Image::kCells:
    case Image::kDrawnPast:
    case Image::kDifference:
    case Image::kTest:
    case Image::kBlend:
    case Image::kOffered:
    case Image::kMerged:
    case Image::kDenoised:
    case Image::kGuide:
    case Image::kColour:
    case Image::kSteady:
      return {(width + 1) / 2, (height + 1) / 2};
    case Image::kCanvas:
    case Image::kNextCanvas:
      return {(width + 1) / 2 + kCanvasBorder, (height + 1) / 2 + kCanvasBorder};
    default:
      return {width, height};
  }
}

Texels texelsOf(Image image) {
  switch (image) {
    case Image::kDrawnPast:
    case Image::kBlend:
    case Image::kOffered:
    case Image::kMerged:
    case Image::kSteady:
    case Image::kCanvas:
    case Image::kNextCanvas:
      return Texels::kTwiceInWords;
    case Image::kDenoised:
    case Image::kGuide:
    case Image::kColour:
      return Texels::kWords;
    default:
      return Texels::kBytes;
  }
}

bool isPacked(Image image) {
  return image == Image::kHalfLuma || image == Image::kSmoothedLuma || image == Image::kLumaBytes ||
         image == Image::kChromaBytes;
}

// Calls visit(pass) for every pass that the engine can draw.
template <typename Visit>
void forEachPass(const _KRGPUEngine& engine, const Visit& visit) {
  const ModePlan& plan = *engine.plan;
  for (const std::span<const Pass> sequence : {plan.light, plan.first, plan.second, plan.later}) {
    for (const Pass& pass : sequence) visit(pass);
  }
  if (isRgbaMode(engine)) return;
  if (plan.hasCanvas) {
    if (engine.offscreen == 0) visit(untouchedPass(false));
    for (const Pass& pass : engine.offscreen == 1 ? plan.pack : plan.show) visit(pass);
    return;
  }
  visit(untouchedPass(false));
  visit(untouchedPass(true));
  if (engine.offscreen == 0) return;
  for (const Pass& pass : plan.pack) visit(pass);
}

// False when the image cannot be drawn into.
bool createImage(_KRGPUEngine* engine, int index, Image image) {
  FrameBuffer& frameBuffer = engine->frameBuffers[index];
  if (frameBuffer.isThere()) return true;  // another pass draws into it too
  const ImageSize size = sizeFor(*engine, image);
  frameBuffer = FrameBuffer::make(size.width, size.height, isPacked(image) ? GL_NEAREST : GL_LINEAR, texelsOf(image));
  if (!frameBuffer.isThere()) return false;
  const int delay = engine->handOver.outputDelay;
  if (image == Image::kLumaBytes) frameBuffer.InitPixelBuffers(engine->width / 4 * engine->height * 4, delay);
  if (image == Image::kChromaBytes) frameBuffer.InitPixelBuffers(engine->width / 4 * engine->height / 2 * 4, delay);
  if (image == Image::kInPlace) frameBuffer.InitPixelBuffers(engine->width * engine->height * 4, delay);
  return true;
}

// A block of local motion is at least 8 pixels wide.
bool createClearTextures(_KRGPUEngine* engine) {
  const int width = engine->width;
  const int height = engine->height;
  const int columns = (width + 7) / 8;
  const int rows = (height + 7) / 8;
  engine->localMotionTexels =
      static_cast<unsigned char*>(std::calloc(static_cast<size_t>(columns) * static_cast<size_t>(rows), 4));
  if (engine->localMotionTexels == nullptr) NOXEL_LOG_ERROR("no memory for the local motion");
  engine->localMotionTexture = Texture::make(columns, rows, GL_RGBA, GL_NEAREST);
  engine->toneTexture = Texture::make(kToneEntries, 1, GL_RGBA, GL_NEAREST);
  engine->lumaTexture = Texture::make(width, height, GL_LUMINANCE);
  engine->chromaTexture = Texture::make(part(width, 2), part(height, 2), GL_LUMINANCE_ALPHA);
  return engine->localMotionTexels != nullptr && engine->localMotionTexture.isThere() &&
         engine->toneTexture.isThere() && engine->lumaTexture.isThere() && engine->chromaTexture.isThere();
}

bool createTextures(_KRGPUEngine* engine) {
  const int width = engine->width;
  const int height = engine->height;
  if (isRgbaMode(*engine)) {
    engine->rgbaTexture = Texture::make(width, height, GL_RGBA);
    return engine->rgbaTexture.isThere();
  }
  if (engine->plan->hasCanvas) return createClearTextures(engine);
  engine->packedLumaTexture = Texture::make(part(width, 4), height, GL_RGBA, GL_NEAREST);
  engine->lumaTexture = Texture::make(width, height, GL_LUMINANCE);
  engine->chromaTexture = Texture::make(part(width, 2), part(height, 2), GL_LUMINANCE_ALPHA);
  engine->selectorTexture = createSelectorTexture();
  return engine->packedLumaTexture.isThere() && engine->lumaTexture.isThere() && engine->chromaTexture.isThere() &&
         engine->selectorTexture.isThere();
}

bool createCanvases(_KRGPUEngine* engine) {
  engine->clearHistory = ClearHistory(engine->width, engine->height);
  return createImage(engine, ownIndex(Image::kCanvas), Image::kCanvas) &&
         createImage(engine, ownIndex(Image::kNextCanvas), Image::kNextCanvas);
}

// Makes the textures, and the images that the mode's passes draw into. False when one is missing.
bool CreateResources(_KRGPUEngine* engine) {
  bool complete = createTextures(engine);
  forEachPass(*engine, [&](const Pass& pass) {
    if (pass.writes == Image::kMerged) return;  // prepareBlends
    if (pass.writes == Image::kNext) {
      for (int i = 0; i < engine->plan->ringLength; ++i) complete = createImage(engine, i, pass.writes) && complete;
    } else if (pass.writes == Image::kNextCanvas) {
      complete = createCanvases(engine) && complete;
    } else if (const int index = frameBufferIndex(*engine, pass.writes); index >= 0) {
      complete = createImage(engine, index, pass.writes) && complete;
    }
  });
  return NOXEL_CHECK_GL("CreateResources") && complete;
}

// False when a program is missing that a pass of the mode needs: a pass left out leaves its target undefined.
bool LoadShaders(_KRGPUEngine* engine) {
  const CacheDirectory directory = openProgramCache(
      engine->handOver.cacheDirectory != nullptr ? engine->handOver.cacheDirectory : platform::programCacheDirectory(),
      shaders::kProgramFingerprint);
  if (engine->plan->hasCanvas) {
    const bool intoWindow = engine->offscreen == 0;
    const bool shares = engine->handOver.shareContext != nullptr;
    engine->lowLight.untouchedOnly = true;
    const bool built = engine->clear.setupPrograms(intoWindow, directory) &&
                       (!(intoWindow || shares) || engine->lowLight.setupPrograms(directory));
    glReleaseShaderCompiler();
    return built;
  }
  engine->lowLight.syncMode = isRgbaMode(*engine);
  engine->lowLight.reducedPrograms = engine->mode == 1;
  (void)engine->lowLight.setupPrograms(directory);
  if (!isRgbaMode(*engine)) {
    (void)engine->bilateral.setupPrograms(directory);
    (void)engine->yuvToRgb.setupPrograms(directory);
    if (engine->offscreen == 1) (void)engine->rgbToYuv.setupPrograms(directory);
  }
  glReleaseShaderCompiler();
  bool complete = true;
  forEachPass(*engine, [&](const Pass& pass) { complete = complete && programOf(engine, pass.program) != nullptr; });
  return complete;
}

// The read-back packs four luma bytes a texel and half the rows for the chroma: other sizes would come back sheared.
bool canBeReadBack(const _KRGPUEngine& engine) {
  if (engine.offscreen == 0 || isRgbaMode(engine) || (engine.width % 4 == 0 && engine.height % 2 == 0)) return true;
  NOXEL_LOG_ERROR("frames of %d x %d cannot be read back: pad them to a multiple of 4 x 2", engine.width,
                  engine.height);
  return false;
}

bool fitsTheDriver(const _KRGPUEngine& engine) {
  GLint texture = 0, viewport[2] = {};
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &texture);
  glGetIntegerv(GL_MAX_VIEWPORT_DIMS, viewport);
  if (engine.width <= std::min(texture, viewport[0]) && engine.height <= std::min(texture, viewport[1])) return true;
  NOXEL_LOG_ERROR("frames of %d x %d are beyond the driver's limits", engine.width, engine.height);
  return false;
}

void SetUp(_KRGPUEngine* engine, void* window) {
  if (!canBeReadBack(*engine)) return;
  if (engine->offscreen == 1 && !isRgbaMode(*engine)) {
    engine->readBackFrame = static_cast<unsigned char*>(std::calloc(engine->lumaSize + engine->lumaSize / 2, 1));
    if (engine->readBackFrame == nullptr) {
      NOXEL_LOG_ERROR("no memory for the GPU engine");
      return;
    }
  }
  engine->egl.sharedDisplay = engine->handOver.shareDisplay;
  if (engine->egl.Initialize(engine->width, engine->height, window, engine->handOver.shareContext) != 1 ||
      !fitsTheDriver(*engine)) {
    return;
  }
  engine->passTimer.setUp(&engine->egl);
  engine->ready = CreateResources(engine) && LoadShaders(engine);
}

void create(int width, int height, void* window, const HandOver& handOver, int mode, _KRGPUEngine** result) {
  auto* engine = new (std::nothrow) _KRGPUEngine();
  if (engine == nullptr) return;
  *result = engine;
  engine->mode = mode;
  engine->plan = &modePlan(mode);
  engine->width = width;
  engine->height = height;
  engine->historyIndex = isRgbaMode(*engine) ? 0 : 1;
  engine->outIndex = kMaxLevelImages - 1;
  engine->outputWidth = width;
  engine->outputHeight = height;
  engine->lumaSize = static_cast<size_t>(width) * static_cast<size_t>(height);
  engine->offscreen = window == nullptr ? 1 : 0;
  engine->handOver = handOver;
  SetUp(engine, window);
  if (!engine->ready) NOXEL_LOG_ERROR("the GPU engine is not usable: frames are returned as they came");
}

}  // namespace

_KRGPUEngine::~_KRGPUEngine() {
  if (shownFramebuffer != 0) glDeleteFramebuffers(1, &shownFramebuffer);
  std::free(readBackFrame);
  std::free(localMotionTexels);
  std::free(wordScratch);
}

bool prepareBlends(_KRGPUEngine* engine) {
  forgetGLErrors();
  bool complete = true;
  for (const Image image : {Image::kMerged, Image::kOffered}) {
    complete = complete && createImage(engine, ownIndex(image), image);
  }
  if (complete && engine->wordScratch == nullptr) {
    const ImageSize cells = sizeFor(*engine, Image::kMerged);
    const size_t count = static_cast<size_t>(cells.width) * static_cast<size_t>(cells.height);
    engine->wordScratch = static_cast<uint32_t*>(std::calloc(count, 4 * sizeof(uint32_t)));
  }
  return NOXEL_CHECK_GL("prepareBlends") && engine->wordScratch != nullptr;
}

MaskSize ghostMaskSize(int frameWidth, int frameHeight, bool hasCanvas) {
  if (hasCanvas) return {(frameWidth + 1) / 2, (frameHeight + 1) / 2};
  return {part(part(frameWidth, 4), 2), part(part(frameHeight, 4), 2)};
}

FrameBuffer* frameBufferOf(_KRGPUEngine* engine, Image image) {
  const int index = frameBufferIndex(*engine, image);
  return index >= 0 ? &engine->frameBuffers[index] : nullptr;
}

GLuint textureOf(_KRGPUEngine* engine, Image image) {
  if (const Texture* texture = uploadedTexture(*engine, image); texture != nullptr) return texture->GetId();
  const FrameBuffer* frameBuffer = frameBufferOf(engine, image);
  if (frameBuffer == nullptr) return 0;
  return isSecond(image) ? frameBuffer->secondTextureId : frameBuffer->GetTextureId();
}

ImageSize imageSize(const _KRGPUEngine& engine, Image image) {
  if (const Texture* texture = uploadedTexture(engine, image); texture != nullptr)
    return {texture->width, texture->height};
  const int index = frameBufferIndex(engine, image);
  return index >= 0 ? ImageSize{engine.frameBuffers[index].width, engine.frameBuffers[index].height} : ImageSize{};
}

Program* programOf(_KRGPUEngine* engine, ProgramId id) {
  if (id <= kr_w27) return engine->lowLight.program(id);
  if (id <= kr_bl2) return engine->bilateral.program(id);
  if (id >= clear_split) return engine->clear.program(id);
  return id <= kr_r3 ? engine->rgbToYuv.program(id) : engine->yuvToRgb.program(id);
}

void CreateGPUEngine(int width, int height, const HandOver& handOver, int mode, _KRGPUEngine** result) {
  create(width, height, nullptr, handOver, mode, result);
}

void CreateGPUEngineWithWindow(int width, int height, void* window, const HandOver& handOver, int mode,
                               _KRGPUEngine** result) {
  create(width, height, window, handOver, mode, result);
  if (*result != nullptr && (*result)->ready) (*result)->egl.PrintEGLInfo();
}

void DestroyGPUEngine(_KRGPUEngine** engine) {
  delete *engine;
  *engine = nullptr;
}

void resetFirstFrame(_KRGPUEngine* engine) {
  if (engine == nullptr) return;
  for (const Image plane : {Image::kLumaBytes, Image::kChromaBytes}) frameBufferOf(engine, plane)->RestartReadBack();
}

}  // namespace noxel
