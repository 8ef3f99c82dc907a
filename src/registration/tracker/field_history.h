// What the last frames found of each block, carried along with the picture.
#pragma once

#include <cstdint>

#include "registration/motion_field.h"
#include "registration/tracker/picture_frame.h"

namespace noxel::tracker {

struct Displacement {
  float x;  // samples of the aligned pictures
  float y;

  bool isZero() const { return x == 0.0f && y == 0.0f; }
};

// What a block's surroundings said of it before this frame.
struct Carried {
  Displacement d;  // zero: it did not move on its own
  float gain;      // of the frames before by moving so, an older one counting less; negative: it stood still
};

// Things that move on their own mostly go on as they did. Each frame's gains are added to those of the frames before,
// where the block has come from, and die away: a displacement that no picture confirms is forgotten within a few frames.
// Registration thread only.
class FieldHistory {
 public:
  FieldHistory() = default;
  ~FieldHistory();
  FieldHistory(const FieldHistory&) = delete;
  FieldHistory& operator=(const FieldHistory&) = delete;

  bool allocate(int columns, int rows);
  void forget();

  // Moves what is known of the previous frame's blocks to where they are now: along `motion` and their own displacement.
  void carry(const PictureFrame& frame, const GlobalMotion& motion);
  // After carry: what is known of a block of this frame, by the frames before.
  const Carried& of(int block) const { return carried_[block]; }
  bool isEmpty() const { return isEmpty_; }
  // Adds a block's gain in this frame to what was carried, when that is about the same displacement.
  float add(int block, Displacement d, float gain) const;
  // What `add` gives deviates so much more by noise than the gain of one frame.
  float deviation() const { return deviation_; }

  // What this frame found, for the next one; `gains` with the frames before.
  void keep(const BlockMotion* field, const float* gains);

 private:
  int columns_ = 0;
  int rows_ = 0;
  bool isEmpty_ = true;
  float deviation_ = 1.0f;
  Carried* kept_ = nullptr;     // of the previous frame's blocks
  Carried* carried_ = nullptr;  // of this frame's
  float* weights_ = nullptr;    // of what came to each block
  float* largest_ = nullptr;    // of what moves among it
};

}  // namespace noxel::tracker
