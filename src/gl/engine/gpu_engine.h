// The GPU side of one engine: context, textures, images, filters, and how a finished frame is handed over.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "filters/programs.h"
#include "gl/engine/clear_history.h"
#include "gl/engine/pass_timer.h"
#include "gl/engine/sequences.h"
#include "gl/engine/warps.h"
#include "gl/runtime/egl_engine.h"
#include "gl/runtime/frame_buffer.h"
#include "gl/runtime/texture.h"
#include "platform/signal.h"

namespace noxel {

// How the frame delivered last was made. Belongs to the engine record; under frameMutex unless stated otherwise.
struct DeliveryNotes {
  uint64_t delivered = 0;                   // frames so far
  FramePath outputPath = FramePath::kNone;  // of the frame in the output buffer; none: no frame of this sequence
  bool missed = false;                      // it could not be read back: the output buffer holds an older one
  double gpuMs = 0.0;  // of the GPU thread, from prepareFrame to delivery; a wait for the caller counts

  // The ghost mask, to see where the blend is held back.
  std::atomic<int> captureMask = 0;  // 1: release/acquire, once the buffers are allocated
  void* maskPixels = nullptr;        // as read back, maskPixelBytes each; the GPU thread's
  unsigned char* mask = nullptr;     // 0 the blend that the strength asks for, 255 the current frame alone
  bool maskValid = false;            // the frame was blended, and `mask` is its own

  // Of the next frame alone; mode 5.
  uint16_t* keptBlend = nullptr;           // where its blend goes; null: it is made a picture of
  const uint16_t* offeredBlend = nullptr;  // what comes after it; null: not known

  PassObserver passObserver = nullptr;  // null: the passes are not timed
  void* passObserverContext = nullptr;
};

// Where finished frames go. The words belong to the engine record above and outlive the GPU engine.
struct HandOver {
  unsigned char* outputBuffer;  // width * height * 3/2 bytes, NV21, written under frameMutex
  pthread_mutex_t* frameMutex;
  std::atomic<int>* queuedFrames;         // lowered under frameMutex, once per frame of the current sequence
  const std::atomic<uint32_t>* sequence;  // current number, stable under frameMutex
  const std::atomic<int>* initialized;    // 0 ends every wait for the caller
  int syncWithCaller;
  int outputDelay;                 // read-back buffers, 1..3
  _KRSignal* callerSignal;         // 1 output ready, -1 output taken
  std::atomic<int>* ready;         // cleared when the context is lost: no frame is drawn from then on
  DeliveryNotes* notes = nullptr;  // may be null

  const char* cacheDirectory = nullptr;  // of programs; null: the process's
  void* shareDisplay = nullptr;          // EGLDisplay and EGLContext to share textures with; null: none
  void* shareContext = nullptr;
};

// The framebuffers of an engine; images of the passes may share one. Only those that a pass of the mode draws into are made.
inline constexpr int kToneEntries = 256;

inline constexpr int kMaxLevelImages = 4;  // of the frame's size
inline constexpr int kMaxFrameBuffers =
    kMaxLevelImages + static_cast<int>(Image::kCount) - static_cast<int>(Image::kHalfLuma);

// One per engine. Made, used and destroyed by the GPU thread; other threads meet it only through the HandOver.
struct _KRGPUEngine {
  ~_KRGPUEngine();

  int mode = 1;
  const ModePlan* plan = nullptr;  // of the mode
  int width = 0;
  int height = 0;
  int offscreen = 1;
  bool ready = false;  // context current and all programs linked; otherwise no GL call is made

  EGLEngine egl;  // first: destroyed after everything that needs its context
  LowLightFilter lowLight;
  BilateralFilter bilateral;
  YuvToRgbFilter yuvToRgb;
  RgbToYuvFilter rgbToYuv;
  ClearFilter clear;

  Texture lumaTexture;        // one sample a texel
  Texture packedLumaTexture;  // four samples a texel, nearest
  Texture chromaTexture;      // V in red, U in alpha
  Texture rgbaTexture;        // mode 4
  Texture selectorTexture;
  Texture toneTexture;  // mode 5, as the next
  Texture localMotionTexture;
  unsigned char* localMotionTexels = nullptr;  // owned
  FrameBuffer frameBuffers[kMaxFrameBuffers];  // by frameBufferIndex; empty where no pass of the mode draws into it
  PassTimer passTimer;

  HandOver handOver = {};
  unsigned char* readBackFrame = nullptr;  // owned; holds the whole frame before it is copied to the output buffer
  uint32_t* wordScratch = nullptr;  // owned; an image of words as GL surely reads it back: mode 5, once blends are kept
  uint16_t* keptBlend = nullptr;    // the notes', of the frame being drawn
  size_t lumaSize = 0;              // width * height
  int failedReadBacks = 0;          // since the last good one
  GLuint shownFramebuffer = 0;      // what showFrame draws through

  Frame frame;                // the one being drawn
  bool maskCaptured = false;  // the notes' maskPixels are its own
  int outIndex = 0;           // of frameBuffers: the finished picture, off-screen
  int outputWidth = 0;
  int outputHeight = 0;
  float outputTransform[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  Warp frameFromPicture;      // W of the newest frame drawn into history
  Warp previousFromFrame;     // its motion, in texture coordinates
  ClearHistory clearHistory;  // mode 5, as the next
  ClearFrame clearFrame;
  float motionWarp[16] = {};           // current picture to accumulated frame
  float previousFromCurrent[16] = {};  // mode 0: this frame to the one before
  float previousFromPicture[16] = {};  // mode 0: current picture to the frame before
  float oldestFromPicture[16] = {};    // mode 0: current picture to the frame before that
  float zoomWarp[16] = {};
  float stabilizedWarp[16] = {};
  int historyCount = 1;     // -1 spatial path, 0 history restarts here, n: the nth frame blended into it
  int historyIndex = 1;     // frameBuffers[historyIndex] is the accumulated frame, in mode 0 the one before
  int texturesLoaded = 0;   // the current frame's planes are in textures
  bool lumaFilled = false;  // and which of the two luma textures they are in
  bool packedLumaFilled = false;
};

// Make the record, the context, the images and the programs. *result stays untouched when memory for the record ran out;
// every other failure is logged and leaves `ready` false.
void CreateGPUEngine(int width, int height, const HandOver& handOver, int mode, _KRGPUEngine** result);
void CreateGPUEngineWithWindow(int width, int height, void* window, const HandOver& handOver, int mode,
                               _KRGPUEngine** result);
void DestroyGPUEngine(_KRGPUEngine** engine);  // null is allowed

// Of what tells how far the blend is held back, for frames of this size: the ghost mask, an eighth of the frame, in bytes; in
// mode 5 the count of frames by cell, in unsigned integers of 32 bits. Four values a pixel.
struct MaskSize {
  int width;
  int height;
};
MaskSize ghostMaskSize(int frameWidth, int frameHeight, bool hasCanvas);
constexpr size_t maskPixelBytes(bool hasCanvas) {
  return hasCanvas ? 16 : 4;
}

// Mode 5: makes what keeping and merging blends needs. False when GL failed or memory ran out; keep none then.
bool prepareBlends(_KRGPUEngine* engine);

// A finished frame for a texture of the context that the engine shares.
struct ShownFrame {
  const unsigned char* nv21 = nullptr;  // of the engine's size
  int usedWidth = 0;                    // of it; the rest is padding
  int usedHeight = 0;
  GLuint texture = 0;
  int width = 0;  // of the texture
  int height = 0;
};
// Draws it, its first row first, and returns when that has been done. False when GL failed, which is logged.
bool showFrame(_KRGPUEngine* engine, const ShownFrame& shown);

// Loaders: the planes of an NV21 frame into textures.
void loadTextures(_KRGPUEngine* engine, const unsigned char* frame);
void loadPackedTextures(_KRGPUEngine* engine, const unsigned char* frame);
void loadPackedTextureYOnly(_KRGPUEngine* engine, const unsigned char* frame);
void loadTextureUVOnly(_KRGPUEngine* engine, const unsigned char* frame);
void loadShownFrame(_KRGPUEngine* engine, const unsigned char* nv21);    // in the place of a frame that is to be drawn
void loadRgbaTexture(_KRGPUEngine* engine, const unsigned char* frame);  // mode 4: width * height * 4 bytes

// Restarts the read-back: the next frame comes back at once, and nothing older. Null is ignored.
void resetFirstFrame(_KRGPUEngine* engine);

// Takes the frame over and loads the planes that no load command brought. After it the frame and its buffer may be
// overwritten.
void prepareFrame(_KRGPUEngine* engine, const Frame& frame);

// Draws that frame by its mode's sequence and hands it over. Modes 0 to 3.
void processFrame(_KRGPUEngine* engine);

// Mode 4: enhances width * height * 4 bytes in place and returns when they are there.
void processInPlace(_KRGPUEngine* engine, const Frame& frame);

// Resolve the image names of the passes. Null, 0 and 0 x 0 for an image that this engine does not have.
FrameBuffer* frameBufferOf(_KRGPUEngine* engine, Image image);
GLuint textureOf(_KRGPUEngine* engine, Image image);
ImageSize imageSize(const _KRGPUEngine& engine, Image image);
Program* programOf(_KRGPUEngine* engine, ProgramId id);  // null unless linked

// Draws the finished picture into the bytes of one plane.
void drawPack(_KRGPUEngine* engine, Image plane);

// Drops a frame that is not drawn: one queued frame less, and a waiting caller wakes.
void dropFrame(const HandOver& handOver, uint32_t sequence);

// Hands the current frame over: counts it, puts `bytes` (a whole NV21 frame, or null when there is none) into the output
// buffer, and tells a synchronous caller. A frame from before a break writes nothing and counts for nothing.
void deliver(_KRGPUEngine* engine, const unsigned char* bytes);

// Converts the finished picture to NV21 (or U before V) and delivers what the read-back ring has.
void ReadBackYuv(_KRGPUEngine* engine);

// Reads the bound framebuffer's whole image back, and copies the oldest that the ring holds since its last restart. False,
// and `bytes` as they were or half a picture, when GL failed.
bool readImage(FrameBuffer* image, unsigned char* bytes);

// The first failed read-back is logged; eight in a row mean a lost context, as does a swap that reports one. The engine is not
// ready from then on: returning frames as they came is better than repeating an old one.
void noteReadBack(_KRGPUEngine* engine, bool complete);
void swapBuffers(_KRGPUEngine* engine);

}  // namespace noxel
