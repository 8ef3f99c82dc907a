#include "registration/point_tracker.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "registration/tracker/median.h"
#include "registration/tracker/point_tracker_state.h"

namespace noxel {
namespace {

using tracker::BlockGrid;
using tracker::kBackward;
using tracker::kBlockSide;
using tracker::kForward;
using tracker::medianOf;
using tracker::MotionFound;
using tracker::PatchEvidence;

constexpr float kLostError = 1e3f;
constexpr int kCellSide = 16;  // pixels: about the distance between points

// A point within this many pixels of the global motion, plus three times the median forward-backward distance, follows
// it. When enough points do, the others are outliers: objects that move on their own.
constexpr float kTolerance = 1.5f;
constexpr int kMinConsensus = 30;
constexpr float kMinShare = 0.4f;

// A camera that moves less than this (pixels), and not significantly, is on a tripod: the jitter of the measurement,
// resampled into the history frame after frame, would blur it. A picture that does not determine all of the motion, or
// only on a coarser level, is too soft to be blurred by a motion within three times its expected error, up to the second
// bound.
constexpr double kStill = 0.05;
constexpr double kMaxStill = 0.5;

// A motion must not be an exact translation or the identity: registerFrame takes a zero coefficient for a failed fit.
// This much rotation and zoom, alternating in sign, is at most 0.02 pixels in the corners.
constexpr float kStillStep = 0x1p-16f;
constexpr float kSamePlace = 1e-3f;  // pixels: displacements that a fit may take as equal

constexpr float kGoodCorrelation = 0.9f;

// Texture in its weaker direction (the smaller eigenvalue), for choosing points.
float cornerness(const PatchEvidence& patch) {
  const float half = 0.5f * (patch.hxx - patch.hyy);
  return 0.5f * (patch.hxx + patch.hyy) - std::sqrt(half * half + patch.hxy * patch.hxy);
}

// The block that contains a point of the registration image.
int blockAt(const BlockGrid& grid, int level, float x, float y) {
  const auto scale = static_cast<float>(1 << level);
  const auto column = static_cast<int>((x / scale - static_cast<float>(grid.originX)) / kBlockSide);
  const auto row = static_cast<int>((y / scale - static_cast<float>(grid.originY)) / kBlockSide);
  return std::clamp(row, 0, grid.rows - 1) * grid.columns + std::clamp(column, 0, grid.columns - 1);
}

}  // namespace

PointTracker::~PointTracker() {
  std::free(identifiers_);
  delete field_;
}

bool PointTracker::allocate(int width, int height, int levels) {
  frameWidth_ = static_cast<float>(width);
  frameHeight_ = static_cast<float>(height);
  cellColumns_ = (width + kCellSide - 1) / kCellSide;
  cellRows_ = (height + kCellSide - 1) / kCellSide;
  identifiers_ =
      static_cast<int*>(std::calloc(static_cast<size_t>(cellColumns_) * static_cast<size_t>(cellRows_), sizeof(int)));
  return identifiers_ != nullptr && estimator_.allocate(width, height, levels);
}

bool PointTracker::enableField() {
  if (field_ != nullptr) return true;
  auto* field = new (std::nothrow) tracker::MotionFieldEstimator();
  if (field == nullptr || !field->allocate(static_cast<int>(frameWidth_), static_cast<int>(frameHeight_))) {
    delete field;
    return false;
  }
  field_ = field;
  return true;
}

void PointTracker::clearField() {
  if (field_ != nullptr) field_->clear();
}

int PointTracker::cellAt(float x, float y) const {
  const int column = std::clamp(static_cast<int>(x) / kCellSide, 0, cellColumns_ - 1);
  const int row = std::clamp(static_cast<int>(y) / kCellSide, 0, cellRows_ - 1);
  return row * cellColumns_ + column;
}

void PointTracker::prime(const uint8_t* frame) {
  std::memset(identifiers_, 0, sizeof(int) * static_cast<size_t>(cellColumns_) * static_cast<size_t>(cellRows_));
  clearField();
  estimator_.forget();
  estimator_.read(frame, pool);
}

// The best-textured block of each cell; cells are as small as maxPoints allows.
int PointTracker::choosePoints(int level, int maxPoints) {
  const BlockGrid& grid = estimator_.level(level).grid();
  const PatchEvidence* patches = estimator_.level(level).patches(kForward);
  int side = 1;
  while (((grid.columns + side - 1) / side) * ((grid.rows + side - 1) / side) > maxPoints) ++side;
  int count = 0;
  for (int top = 0; top < grid.rows; top += side) {
    for (int left = 0; left < grid.columns; left += side) {
      int best = -1;
      float bestTexture = 0.0f;
      for (int row = top; row < std::min(top + side, grid.rows); ++row) {
        for (int column = left; column < std::min(left + side, grid.columns); ++column) {
          const int block = row * grid.columns + column;
          if (!(patches[block].blocks > 0.0f)) continue;
          const float texture = cornerness(patches[block]);
          if (texture > bestTexture) {
            best = block;
            bestTexture = texture;
          }
        }
      }
      if (best >= 0) chosen_[count++] = best;
    }
  }
  return count;
}

// The finest level where noise does not hide that patches match; without one, the level with the best median
// correlation.
int PointTracker::scoreLevel() const {
  int best = 0;
  float bestMedian = -1.0f;
  for (int level = 0; level <= estimator_.coarsest() && estimator_.level(level).compared(); ++level) {
    const PatchEvidence* patches = estimator_.level(level).patches(kForward);
    const int blocks = estimator_.level(level).grid().count();
    const int stride = std::max(1, blocks / kMaxPoints + 1);
    int count = 0;
    for (int i = 0; i < blocks; i += stride) {
      if (patches[i].blocks > 0.0f) scratch_[count++] = patches[i].correlation();
    }
    if (count == 0) continue;
    const float median = medianOf(scratch_, count);
    if (median > bestMedian) {
      bestMedian = median;
      best = level;
    }
    if (median >= kGoodCorrelation) break;
  }
  return best;
}

void PointTracker::track(const uint8_t* frame, _KROFRegistration* registration) {
  estimator_.read(frame, pool);
  if (field_ != nullptr) estimator_.setMoving(field_->field());
  const MotionFound found = estimator_.estimate(pool);
  deviation_ = found.cornerDeviation;
  placePoints(found.level, registration);
  if (found.known) {
    displacePoints(found, registration);
    markOthers(registration);
    const bool still = holdStill(found, registration);
    if (field_ != nullptr) {
      field_->estimate(estimator_.previous(), estimator_.current(), estimator_.pictureFrame(),
                       still ? tracker::GlobalMotion{} : found.motion, pool);
    }
  } else {
    clearField();
  }
  for (int i = 0; i < registration->pointCount; ++i) {
    const KRPoint& source = registration->sourcePoints[i];
    const KRPoint& displacement = registration->displacements[i];
    registration->targetPoints[i] = {source.x + displacement.x, source.y + displacement.y};
  }
}

// Fills in the points, all marked as lost.
void PointTracker::placePoints(int level, _KROFRegistration* registration) {
  const BlockGrid& grid = estimator_.level(level).grid();
  const float scale = estimator_.level(level).scale();
  registration->pointCount = choosePoints(level, registration->maxPoints);
  for (int i = 0; i < registration->pointCount; ++i) {
    const float x = grid.centreX(chosen_[i] % grid.columns) * scale;
    const float y = grid.centreY(chosen_[i] / grid.columns) * scale;
    registration->sourcePoints[i] = {x, y};
    registration->displacements[i] = {0.0f, 0.0f};
    registration->scores[i] = 0.0f;
    registration->errors[i] = kLostError;
    registration->indices[i] = i;
    int& identifier = identifiers_[cellAt(x, y)];
    registration->identifiers[i] = identifier != 0 ? identifier : ++lastIdentifier_;
    identifier = 0;  // a second point in the cell gets its own
  }
}

// Moves every point along the global motion. A patch's own displacement is too noisy in the dark, and with parallax a
// fit to such points would follow the middle of the picture and lose the rest; it only decides how far a point is
// trusted.
void PointTracker::displacePoints(const MotionFound& found, _KROFRegistration* registration) {
  const int level = found.level;
  const BlockGrid& grid = estimator_.level(level).grid();
  const PatchEvidence* forward = estimator_.level(level).patches(kForward);
  const PatchEvidence* backward = estimator_.level(level).patches(kBackward);
  const float scale = estimator_.level(level).scale();
  const tracker::PictureFrame& frame = estimator_.pictureFrame();
  const int count = registration->pointCount;

  const int comparedAt = scoreLevel();
  const BlockGrid& comparedGrid = estimator_.level(comparedAt).grid();
  const PatchEvidence* compared = estimator_.level(comparedAt).patches(kForward);
  for (int i = 0; i < count; ++i) {
    const KRPoint& source = registration->sourcePoints[i];
    const auto dx = static_cast<float>(found.motion.dx(frame.u(source.x), frame.v(source.y)));
    const auto dy = static_cast<float>(found.motion.dy(frame.u(source.x), frame.v(source.y)));
    float ownX, ownY, backX, backY;
    const PatchEvidence& back = backward[blockAt(grid, level, source.x + dx, source.y + dy)];
    if (!forward[chosen_[i]].displacement(&ownX, &ownY) || !back.displacement(&backX, &backY)) continue;
    registration->displacements[i] = {dx, dy};
    // Where the picture does not determine all of the motion, most patches have no texture to correlate; they do not
    // contradict the motion either, and without them the points would lie on a line.
    const float own = compared[blockAt(comparedGrid, comparedAt, source.x, source.y)].correlation();
    registration->scores[i] = found.followed < 4 ? std::max(own, found.correlation) : own;
    registration->errors[i] = std::hypot(ownX + backX, ownY + backY) * scale;
    offCourse_[i] = std::hypot(ownX, ownY) * scale;
  }
}

void PointTracker::markOthers(_KROFRegistration* registration) {
  const int count = registration->pointCount;
  std::memcpy(scratch_, registration->errors, sizeof(float) * static_cast<size_t>(count));
  const float tolerance = kTolerance + 3.0f * medianOf(scratch_, count);
  const auto follows = [&](int i) { return registration->errors[i] < kLostError && offCourse_[i] <= tolerance; };
  int following = 0;
  for (int i = 0; i < count; ++i) following += follows(i) ? 1 : 0;
  if (following < kMinConsensus || static_cast<float>(following) < kMinShare * static_cast<float>(count)) return;
  for (int i = 0; i < count; ++i) {
    if (!follows(i)) registration->errors[i] = kLostError;
  }
}

// True: the motion counts as none.
bool PointTracker::holdStill(const MotionFound& found, _KROFRegistration* registration) {
  const int count = registration->pointCount;
  int followed = 0;
  bool alike = true;
  KRPoint first = {};
  for (int i = 0; i < count; ++i) {
    if (!(registration->errors[i] < kLostError)) continue;
    const KRPoint& displacement = registration->displacements[i];
    if (followed == 0) first = displacement;
    scratch_[followed++] = std::hypot(displacement.x, displacement.y);
    alike = alike && std::hypot(displacement.x - first.x, displacement.y - first.y) < kSamePlace;
  }
  const bool soft = found.followed < 4 || found.level > 0;
  const double slight = soft ? std::clamp(3.0 * found.followedDeviation, kStill, kMaxStill) : kStill;
  const bool still =
      static_cast<double>(medianOf(scratch_, followed)) < slight && found.significance < tracker::kStillSignificance;
  if (!still && !alike) return false;
  stillSign_ = !stillSign_;
  const float step = stillSign_ ? kStillStep : -kStillStep;
  for (int i = 0; i < count; ++i) {
    const float x = registration->sourcePoints[i].x - 0.5f * frameWidth_;
    const float y = registration->sourcePoints[i].y - 0.5f * frameHeight_;
    KRPoint& displacement = registration->displacements[i];
    if (still) displacement = {0.0f, 0.0f};
    displacement = {displacement.x + step * (x + y), displacement.y + step * (y - x)};
  }
  return still;
}

void PointTracker::advance(const _KROFRegistration& registration) {
  std::memset(identifiers_, 0, sizeof(int) * static_cast<size_t>(cellColumns_) * static_cast<size_t>(cellRows_));
  for (int i = 0; i < registration.pointCount; ++i) {
    const KRPoint& target = registration.targetPoints[i];
    identifiers_[cellAt(target.x, target.y)] = registration.identifiers[i];
  }
  estimator_.advance();
}

void primeTracker(_KROFRegistration* registration, const uint8_t* frame) {
  registration->pointCount = 0;
  registration->tracker->prime(frame);
  registration->tracker->advance(*registration);
}

void trackPoints(_KROFRegistration* registration, const uint8_t* frame) {
  registration->tracker->track(frame, registration);
}

void advanceTracker(_KROFRegistration* registration) {
  registration->tracker->advance(*registration);
}

bool enableMotionField(_KROFRegistration* registration) {
  return registration->tracker->enableField();
}

void clearMotionField(_KROFRegistration* registration) {
  registration->tracker->clearField();
}

MotionField motionField(const _KROFRegistration& registration) {
  return registration.tracker->field();
}

double motionDeviation(const _KROFRegistration& registration) {
  return registration.tracker->motionDeviation();
}

void setTrackerWorkers(_KROFRegistration* registration, WorkerPool* pool) {
  registration->tracker->pool = pool;
}

}  // namespace noxel
