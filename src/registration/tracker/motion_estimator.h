// The motion of the whole picture between two frames, from all of its texture at once.
#pragma once

#include "registration/tracker/block_grid.h"
#include "registration/tracker/coarse_search.h"
#include "registration/tracker/consensus.h"
#include "registration/tracker/global_motion.h"
#include "registration/tracker/image_pyramid.h"

namespace noxel::tracker {

// What a patch of up to 3 x 3 blocks says, about the motion its blocks were compared at.
struct PatchEvidence {
  float blocks;  // of the nine, those that could be compared; 0: the middle one could not
  float hxx;     // texture: sums of g g^T
  float hxy;
  float hyy;
  float bx;  // sums of g (I - J)
  float by;
  float cxx;  // texture that both pictures have: sums of g(I) g(J)^T, its symmetric part
  float cxy;
  float cyy;
  float sum;  // of I, J, I I, J J and (I - J)^2
  float otherSum;
  float squares;
  float otherSquares;
  float energy;

  float shared() const;       // 0..1: the part of the texture that both pictures have
  float correlation() const;  // normalised cross-correlation, mean removed; 0 where there is no variance
  float surprise() const;     // b^T H^-1 b: the squared displacement left, in units of the noise
  // The displacement left, in samples. False without enough texture to tell.
  bool displacement(float* dx, float* dy) const;
};

enum Direction : int { kForward = 0, kBackward = 1 };

// What noise does to the blocks of a level.
struct LevelNoise {
  float texture = 0.0f;       // a block's gradient energy that the other picture does not have
  float displacement = 0.0f;  // variance of b, in units of the texture
};

struct MotionFound {
  bool known = false;
  GlobalMotion motion;           // previous to current frame
  int level = 0;                 // of the pyramid, where it was measured last
  double cornerDeviation = 0.0;  // expected error, rms over the four corners, pixels of the registration image
  double significance = 0.0;     // chi-squared of the motion against no motion at all
  float correlation = 0.0f;      // of the two pictures, on the level where it is highest
  float noise = 0.0f;            // variance of a displacement in units of 1 / texture
};

// Registration thread only.
class MotionEstimator {
 public:
  MotionEstimator() = default;
  ~MotionEstimator();
  MotionEstimator(const MotionEstimator&) = delete;
  MotionEstimator& operator=(const MotionEstimator&) = delete;

  bool allocate(int width, int height, int levels);

  void read(const uint8_t* frame, WorkerPool* pool);  // the current frame
  MotionFound estimate(WorkerPool* pool);             // between the previous and the current frame
  void advance();                                     // the current frame becomes the previous one
  void forgetMotion() { lastMotion = {}; }

  int levels() const { return previous().levels(); }
  const BlockGrid& grid(int level) const { return states[level].grid; }
  // As of the last estimate. Backward: the current frame's blocks against the previous frame.
  const PatchEvidence* patches(int level, Direction direction) const { return states[level].patches[direction]; }
  bool measured(int level) const { return states[level].measured; }
  const BlockTexture* textures(int level) const { return states[level].textures[previousIndex]; }

  // Of a point of the registration image, corner of the picture at (0, 0).
  float u(float x) const { return (x - centreX) / radius; }
  float v(float y) const { return (y - centreY) / radius; }
  // Displacement of the current frame's point (x, y) back to where it was.
  void backward(const GlobalMotion& motion, float x, float y, double* dx, double* dy) const;

 private:
  struct LevelState {
    BlockGrid grid;
    BlockTexture* textures[2] = {};  // of the two frames
    BlockMatch* matches[2] = {};     // of the two directions
    PatchEvidence* patches[2] = {};  // sums of 3 x 3 of them
    PatchEvidence* rowSums = nullptr;
    float* surprises = nullptr;
    bool measured = false;
  };

  const ImagePyramid& previous() const { return pyramids[previousIndex]; }
  const ImagePyramid& current() const { return pyramids[1 - previousIndex]; }

  void searchMotions(int level, GlobalMotion* first, GlobalMotion* second);
  PatchEvidence follow(int level, int column, int row, float* dx, float* dy) const;
  GlobalMotion consensusMotion(int level, const GlobalMotion* starts, int startCount, WorkerPool* pool);
  struct Hypothesis {
    GlobalMotion motion;
    double support = -1.0;
  };

  double supportOf(int level, const GlobalMotion& motion, WorkerPool* pool);
  void test(int level, Hypothesis* hypothesis, WorkerPool* pool);
  double cornerDistance(const GlobalMotion& a, const GlobalMotion& b) const;
  GlobalMotion startingMotion(int searchLevel, int level, WorkerPool* pool);
  MotionFound estimateFrom(int searchLevel, int level, WorkerPool* pool);

  void measure(int level, Direction direction, const GlobalMotion& motion, WorkerPool* pool);
  bool noiseOf(int level, Direction direction, LevelNoise* noise);
  float correlationOf(int level) const;
  void gather(int level, Direction direction, bool sharedSlopes, const LevelNoise& noise,
              MotionEquations* equations) const;
  void approach(int level, GlobalMotion* motion, WorkerPool* pool);
  bool settle(int level, MotionFound* found, WorkerPool* pool);

  ImagePyramid pyramids[2];
  int previousIndex = 0;
  LevelState states[kMostLevels];
  CoarseSearch coarse;
  Displaced* displaced = nullptr;  // of the coarse and the consensus level
  int coarseLevel = 0;
  int consensusLevel = 0;
  float centreX = 0.0f;
  float centreY = 0.0f;
  float radius = 1.0f;
  GlobalMotion lastMotion;
};

}  // namespace noxel::tracker
