// Base of every filter stage: its render target and viewport.
#pragma once

#include "gl/runtime/frame_buffer.h"

namespace noxel {

// Corners of the full screen in normalised device coordinates, x, y pairs in the order of a triangle strip: top-left,
// bottom-left, top-right, bottom-right.
inline constexpr float gSquareVertices[8] = {-1, 1, -1, -1, 1, 1, 1, -1};

// Column-major, as GL takes it.
inline constexpr float kIdentityMatrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// GPU thread only. Move-only.
class GLFilter {
 public:
  GLFilter() = default;
  virtual ~GLFilter() = default;
  GLFilter(GLFilter&&) = default;
  GLFilter& operator=(GLFilter&&) = default;

  // Frees the GL objects while the context is current; the destructor does so too.
  virtual void Release() = 0;

  // Bind the target and set the viewport. The forms without a framebuffer draw into the window.
  int BindTarget(int x, int y, int width, int height);
  int BindTarget(int width, int height);
  int BindTarget(int x, int y, FrameBuffer* fb);  // viewport of fb's size, at (x, y)
  int BindTarget(FrameBuffer* fb);

  // For a pass that covers all of fb: a tiled GPU need not load the old tiles.
  int BindWholeTarget(FrameBuffer* fb);

  void EnableBlending(bool on);  // required; no pass blends
  int Clear(float red, float green, float blue, float alpha);

  float transform[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  float quad[8] = {-1, 1, -1, -1, 1, 1, 1, -1};
  int viewportX = 0;
  int viewportY = 0;
  bool blendingEnabled = false;
  int viewportWidth = 0;
  int viewportHeight = 0;
  FrameBuffer* target = nullptr;  // null: the default framebuffer
};

}  // namespace noxel
