// Which blocks move, of those for which a displacement was found.
#pragma once

#include <cstdint>

#include "registration/motion_field.h"
#include "registration/tracker/aligned_pictures.h"
#include "registration/tracker/field_history.h"

namespace noxel::tracker {

// Costs are squared differences of a window as multiples of what noise and interpolation explain. Neighbouring samples
// share their noise: about so many count as one.
inline constexpr float kCorrelatedSamples = 7.0f;

struct FieldBlock {
  AlignedSums window;  // centred, of the block and its neighbours, without displacement
  float ownEnergy;     // of the block's squared differences, without displacement
  float unit;          // variance of a sample's difference that noise and interpolation explain
  Displacement d;      // zero: none was found
  float cost;          // of the window at d
  int changedIn;       // number of the sweep that last changed d

  float restCost() const { return window.energy / (unit * kCorrelatedSamples); }
};

// Moving regions have evidence as a whole; inside of them blocks without texture follow their neighbours, at their
// border blocks that do not gain from the displacement themselves stay behind. Registration thread only.
class FieldRegions {
 public:
  FieldRegions() = default;
  ~FieldRegions();
  FieldRegions(const FieldRegions&) = delete;
  FieldRegions& operator=(const FieldRegions&) = delete;

  bool allocate(int columns, int rows);
  void decide(const AlignedPictures& pictures, const FieldBlock* blocks, FieldHistory* history, BlockMotion* field,
              WorkerPool* pool);

 private:
  struct Nearest {
    int distance;  // 2 per block
    int block;
  };

  struct Smoothed {
    Displacement d;
    float hxx, hxy, hyy;  // inverse of its variance, squared samples
  };

  void gatherEvidence(const FieldBlock* blocks, const FieldHistory& history);
  void spreadNearest();
  void lendDisplacements(const AlignedPictures& pictures, const FieldBlock* blocks, const FieldHistory& history,
                         WorkerPool* pool);
  void poolGains(const FieldHistory& history, WorkerPool* pool);
  void agree(const FieldHistory& history);
  void closeHoles();
  void beginSmoothing(const FieldBlock* blocks);
  void smooth(int stride, WorkerPool* pool);
  int root(int block);
  int at(int column, int row) const { return row * columns_ + column; }

  int columns_ = 0;
  int rows_ = 0;
  int count_ = 0;
  int* parents_ = nullptr;  // of the trees that join blocks to regions
  float* evidence_ = nullptr;
  Nearest* nearest_ = nullptr;
  Displacement* lent_ = nullptr;
  float* gains_ = nullptr;  // of the block alone, by moving as lent
  float* local_ = nullptr;  // mean of the gains around
  float* says_ = nullptr;
  bool* moves_ = nullptr;
  bool* closed_ = nullptr;
  int* source_ = nullptr;  // the moving block that lends to one in a hole
  Smoothed* smooth_ = nullptr;
  Smoothed* smoother_ = nullptr;
};

}  // namespace noxel::tracker
