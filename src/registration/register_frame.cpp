#include "registration/register_frame.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/log.h"
#include "registration/affine_fit.h"
#include "registration/matrix.h"
#include "registration/point_tracker.h"

namespace noxel {
namespace {

constexpr int kMinMatches = 5;
constexpr float kMovesOnItsOwn = 0.5f;  // confidence of a block: more likely than not
constexpr int kEnoughToJudge = 30;      // pairs; a cell with fewer of its own looks at the nearest of others, too
constexpr float kSameMotion = 2.0f;     // pixels between the displacements of pairs that one cell is fitted to

// A NaN is never within.
bool isWithin(float value, float min, float max) {
  return value >= min && value <= max;
}

// A coefficient of exactly zero marks a failed fit.
bool isFitted(const float (&motion)[9]) {
  return motion[0] != 0.0f && motion[1] != 0.0f && motion[3] != 0.0f && motion[4] != 0.0f;
}

bool isPlausible(const float (&motion)[9]) {
  return isFitted(motion) && isWithin(motion[0], 0.3f, 1.7f) && isWithin(motion[4], 0.3f, 1.7f) &&
         isWithin(motion[1], -0.4f, 0.4f) && isWithin(motion[3], -0.4f, 0.4f) && isWithin(motion[2], -50.0f, 50.0f) &&
         isWithin(motion[5], -50.0f, 50.0f);
}

void resetPath(_KRStabilizationParameters* stabilization, const _KROFRegistration& registration, int columns = 1,
               int rows = 1) {
  if (!initStabilization(stabilization, columns, rows, registration.width, registration.height))
    NOXEL_LOG_ERROR("no memory for the camera path");
}

void beginSequence(const uint8_t* frame, _KROFRegistration* registration, int* firstFrame) {
  primeTracker(registration, frame);
  registration->trackedCount = registration->matchedCount = 0;
  registration->medianScore = registration->medianError = 0.0f;
  *firstFrame = 0;
}

// Prunes the tracked pairs and copies the rest. False when they are too few.
bool takeMatches(_KROFRegistration* registration, _KRMatch* matches) {
  pruneMatches(registration);
  for (int i = 0; i < registration->matchedCount; ++i) {
    const KRPoint source = registration->sourcePoints[i];
    const KRPoint target = registration->targetPoints[i];
    matches[i] = {source.x, source.y, target.x, target.y};
  }
  return registration->matchedCount >= kMinMatches;
}

// Centre of cell `index` of `count` along a side: the first at the near edge, the last at the far edge.
int cellCentre(int index, int count, int side) {
  return count > 1 ? index * (side / (count - 1)) : side / 2;
}

// The cell whose centre is nearest.
int nearestCell(float at, int count, int side) {
  if (count == 1 || side < count) return 0;
  const auto pitch = static_cast<float>(side / (count - 1));
  return static_cast<int>(std::clamp(at / pitch + 0.5f, 0.0f, static_cast<float>(count - 1)));
}

// Pairs of several motions, each with its displacement beside the common one.
struct MixedPairs {
  struct Pair {
    _KRMatch match;
    KRPoint beside;
  };
  Pair pairs[kMaxPoints];
  int count = 0;

  void add(const Pair& pair) {
    if (count < kMaxPoints) pairs[count++] = pair;
  }
};

bool movesOnItsOwn(const MotionField& field, int column, int row) {
  return column >= 0 && column < field.columns && row >= 0 && row < field.rows &&
         field.blocks[row * field.columns + column].confidence >= kMovesOnItsOwn;
}

// Blocks that move otherwise than the whole, as dense as the points, and the points kept elsewhere. False: no such
// blocks.
bool mixPairs(const _KROFRegistration& registration, const MotionField& field, MixedPairs* mixed) {
  if (field.blocks == nullptr) return false;
  const float blocks = static_cast<float>(field.columns) * static_cast<float>(field.rows);
  const auto spacing = [blocks](int count) { return std::sqrt(blocks / static_cast<float>(count)); };
  const int stride = std::max({1, static_cast<int>(std::lround(spacing(registration.trackedCount))),
                               static_cast<int>(std::ceil(spacing(kMaxPoints)))});
  float back[9];
  float forward[9];
  estimateMotion(registration, back, forward, registration.width / 2, registration.height / 2, registration.width / 4,
                 nullptr);
  for (int row = stride / 2; row < field.rows; row += stride) {
    for (int column = stride / 2; column < field.columns; column += stride) {
      if (!movesOnItsOwn(field, column, row)) continue;
      const BlockMotion& block = field.blocks[row * field.columns + column];
      const float x = (static_cast<float>(column) + 0.5f) * kMotionBlockSide;
      const float y = (static_cast<float>(row) + 0.5f) * kMotionBlockSide;
      const float fromX = x - block.dx;
      const float fromY = y - block.dy;
      mixed->add({{back[0] * fromX + back[1] * fromY + back[2], back[3] * fromX + back[4] * fromY + back[5], x, y},
                  {block.dx, block.dy}});
    }
  }
  if (mixed->count == 0) return false;
  for (int i = 0; i < registration.pointCount; ++i) {
    const KRPoint source = registration.sourcePoints[i];
    const KRPoint target = registration.targetPoints[i];
    const auto column = static_cast<int>(std::floor(target.x / kMotionBlockSide));
    const auto row = static_cast<int>(std::floor(target.y / kMotionBlockSide));
    if (!movesOnItsOwn(field, column, row)) mixed->add({{source.x, source.y, target.x, target.y}, {0.0f, 0.0f}});
  }
  return true;
}

struct Grid {
  int columns;
  int rows;
  int width;  // of the picture
  int height;

  int radius() const { return 2 * (width + height) / (columns + rows); }
  int centreX(int cell) const { return cellCentre(cell % columns, columns, width); }
  int centreY(int cell) const { return cellCentre(cell / columns, rows, height); }
  int nearestTo(const _KRMatch& pair) const {
    return nearestCell(pair.sourceY, rows, height) * columns + nearestCell(pair.sourceX, columns, width);
  }
};

// The pairs that move as most of the cell does. Reorders `mixed`. Returns their number.
int prevailingPairs(const Grid& grid, int cell, MixedPairs* mixed, _KRMatch* prevailing) {
  const auto x = static_cast<float>(grid.centreX(cell));
  const auto y = static_cast<float>(grid.centreY(cell));
  const auto distance = [x, y](const MixedPairs::Pair& pair) {
    return std::hypot(pair.match.sourceX - x, pair.match.sourceY - y);
  };
  MixedPairs::Pair* const end = mixed->pairs + mixed->count;
  MixedPairs::Pair* const others = std::partition(
      mixed->pairs, end, [&](const MixedPairs::Pair& pair) { return grid.nearestTo(pair.match) == cell; });
  std::sort(others, end, [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
  const int judged = std::max(static_cast<int>(others - mixed->pairs), std::min(kEnoughToJudge, mixed->count));
  const auto follows = [](const MixedPairs::Pair& a) {
    return [&a](const MixedPairs::Pair& b) {
      return std::hypot(a.beside.x - b.beside.x, a.beside.y - b.beside.y) <= kSameMotion;
    };
  };
  MixedPairs::Pair leader = {};
  ptrdiff_t most = -1;
  for (int i = 0; i < judged; ++i) {
    const ptrdiff_t followers = std::count_if(mixed->pairs, mixed->pairs + judged, follows(mixed->pairs[i]));
    if (followers <= most) continue;
    most = followers;
    leader = mixed->pairs[i];
  }
  int count = 0;
  for (const MixedPairs::Pair* pair = mixed->pairs; pair != end; ++pair) {
    if (follows(leader)(*pair)) prevailing[count++] = pair->match;
  }
  return count;
}

bool fitCells(float (&motion)[9], float (&inverseMotion)[9], const _KROFRegistration& registration,
              const MotionField& field, float (*similarities)[4], int columns, int rows) {
  const Grid grid = {columns, rows, registration.width, registration.height};
  MixedPairs all;
  const bool mixed = mixPairs(registration, field, &all);
  for (int i = 0; i < columns * rows; ++i) {
    if (mixed) {
      _KRMatch pairs[kMaxPoints];
      const int count = prevailingPairs(grid, i, &all, pairs);
      estimateMotion(pairs, count, motion, inverseMotion, grid.centreX(i), grid.centreY(i), grid.radius(),
                     similarities[i]);
    } else {
      estimateMotion(registration, motion, inverseMotion, grid.centreX(i), grid.centreY(i), grid.radius(),
                     similarities[i]);
    }
    if (!isFitted(motion)) return false;
  }
  return true;
}

}  // namespace

void pruneMatches(_KROFRegistration* registration) {
  const int tracked = std::clamp(registration->pointCount, 0, kMaxPoints);
  const auto side = static_cast<float>(registration->width + registration->height);
  registration->medianScore = median(registration->scores, tracked);
  registration->medianError = median(registration->errors, tracked);
  const float minScore = std::clamp(registration->medianScore, 0.65f, 0.9f);
  const float maxError = std::max(std::min(registration->medianError, 0.002f * side), 0.0005f * side);

  int kept = 0;
  for (int i = 0; i < tracked; ++i) {
    if (!(registration->scores[i] >= minScore && registration->errors[i] <= maxError)) continue;
    registration->sourcePoints[kept] = registration->sourcePoints[i];
    registration->targetPoints[kept] = registration->targetPoints[i];
    registration->displacements[kept] = registration->displacements[i];
    registration->identifiers[kept] = registration->identifiers[i];
    registration->indices[kept] = i;
    ++kept;
  }
  registration->trackedCount = tracked;
  registration->pointCount = registration->matchedCount = kept;
}

bool fitFrame(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
              _KRStabilizationParameters* stabilization) {
  setIdentity(motion);
  setIdentity(inverseMotion);
  bool valid = false;
  float similarity[4] = {};
  if (takeMatches(registration, matches)) {
    const int width = registration->width;
    estimateMotion(*registration, motion, inverseMotion, width / 2, registration->height / 2, width / 4, similarity);
    valid = isPlausible(motion);
  }
  if (!valid || !stepStabilization(stabilization, similarity)) resetPath(stabilization, *registration);
  return valid;
}

bool fitFrameGrid(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
                  _KRStabilizationParameters* stabilization, int columns, int rows, const MotionField& field) {
  setIdentity(motion);
  setIdentity(inverseMotion);
  const auto cells = static_cast<size_t>(columns) * static_cast<size_t>(rows);
  bool valid = false;
  if (takeMatches(registration, matches)) {
    auto* similarities = static_cast<float(*)[4]>(std::calloc(cells, sizeof(float[4])));
    valid =
        similarities != nullptr && fitCells(motion, inverseMotion, *registration, field, similarities, columns, rows);
    for (size_t i = 0; valid && i < cells; ++i) {
      if (!stepStabilization(&stabilization[i], similarities[i])) resetPath(&stabilization[i], *registration);
    }
    std::free(similarities);
  }
  if (!valid) resetPath(stabilization, *registration, columns, rows);
  return valid;
}

void registerFrame(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, int* valid,
                   _KROFRegistration* registration, int* firstFrame, _KRStabilizationParameters* stabilization) {
  *valid = 0;
  if (*firstFrame == 1) {
    setIdentity(motion);
    setIdentity(inverseMotion);
    setIdentity(stabilization->stabilizationMatrix);
    beginSequence(frame, registration, firstFrame);
    return;
  }
  trackPoints(registration, frame);
  *valid = fitFrame(motion, inverseMotion, matches, registration, stabilization) ? 1 : 0;
  if (*valid == 0) clearMotionField(registration);
  advanceTracker(registration);
}

void registerFrameCoasting(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches,
                           int* valid, _KROFRegistration* registration, int* firstFrame,
                           _KRStabilizationParameters* stabilization) {
  const bool first = *firstFrame == 1;
  const PathState before = pathState(*stabilization);
  registerFrame(frame, motion, inverseMotion, matches, valid, registration, firstFrame, stabilization);
  if (*valid == 1) return;
  if (first || !coastStabilization(stabilization, before)) resetPath(stabilization, *registration);
}

void registerFrameGrid(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches,
                       int* valid, _KROFRegistration* registration, int* firstFrame,
                       _KRStabilizationParameters* stabilization, int columns, int rows) {
  *valid = 0;
  setIdentity(motion);
  setIdentity(inverseMotion);
  if (columns < 1 || rows < 1) {
    NOXEL_LOG_ERROR("a grid of %d x %d motions", columns, rows);
    return;
  }
  if (*firstFrame == 1) {
    if (!enableMotionField(registration)) NOXEL_LOG_ERROR("no memory for the motion field");
    beginSequence(frame, registration, firstFrame);
    resetPath(stabilization, *registration, columns, rows);
    return;
  }
  trackPoints(registration, frame);
  const MotionField field = motionField(*registration);
  *valid = fitFrameGrid(motion, inverseMotion, matches, registration, stabilization, columns, rows, field) ? 1 : 0;
  if (*valid == 0) clearMotionField(registration);
  advanceTracker(registration);
}

}  // namespace noxel
