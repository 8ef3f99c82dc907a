// Mode 5: where the canvas lies that the history is kept on.
//
// The canvas stands still while the camera moves: each frame is drawn into it once, and the past out of it once, so that
// nothing softens with time. It is larger than the frame by a border, follows the camera by whole cells, which costs nothing,
// and begins anew with the picture blended last when rotation or zoom have taken it too far.
#pragma once

#include "gl/engine/frame.h"
#include "gl/engine/warps.h"

namespace noxel {

inline constexpr int kCanvasBorder = 32;  // pixels at each side; whole cells

// What the clear passes of one frame are drawn with. Affine mappings: two rows of three, in pixels, the first one's centre at
// (0.5, 0.5).
struct ClearFrame {
  bool hasPast = false;      // what the canvas shows is the frame's past
  bool keeps = false;        // the frame's blend is for the caller, and no picture is made of it
  bool merges = false;       // the caller has offered what comes after the frame
  bool keepsCanvas = false;  // the canvas stays as it is: this frame, a flash, adds nothing to it
  bool anchors = true;       // the canvas begins anew with this frame's picture; otherwise the frame is drawn into it
  float canvasFromFrame[6] = {1, 0, 0, 0, 1, 0};
  float frameFromCanvas[6] = {1, 0, 0, 0, 1, 0};   // of the canvas after this frame
  float frameFromPicture[6] = {1, 0, 0, 0, 1, 0};  // the finished picture's zoom and stabilisation
  bool movesLocally = false;                       // some block moves beside the common motion
  float localBlock = 8;                            // pixels across a block of local motion
  float scroll[2] = {0, 0};                        // cells from a place on the canvas to the same one before this frame
};

class ClearHistory {
 public:
  ClearHistory() = default;
  ClearHistory(int width, int height) : width_(width), height_(height) {}

  // The next frame.
  //   previousFromCurrent   its motion, 3 x 3 row-major, in pixels; null: it has no past
  //   frameFromPicture      in texture coordinates
  //   meanLuma              0..255
  ClearFrame step(const float* previousFromCurrent, const Warp& frameFromPicture, float meanLuma);

 private:
  bool isTooFar() const;
  bool isFlash(float meanLuma);

  int width_ = 0;
  int height_ = 0;
  bool begun_ = false;
  float canvasLuma_ = 0;  // mean of the frames drawn into it last
  int flashes_ = 0;       // frames that were not, in a row
  Warp canvasFromFrame_;  // of the newest frame
};

}  // namespace noxel
