#include "registration/register_frame.h"

#include <algorithm>
#include <cstdlib>

#include "platform/log.h"
#include "registration/affine_fit.h"
#include "registration/matrix.h"
#include "registration/point_tracker.h"

namespace noxel {
namespace {

constexpr int kMinMatches = 5;

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

bool fitCells(float (&motion)[9], float (&inverseMotion)[9], const _KROFRegistration& registration,
              float (*similarities)[4], int columns, int rows) {
  const int radius = 2 * (registration.width + registration.height) / (columns + rows);
  for (int i = 0; i < columns * rows; ++i) {
    estimateMotion(registration, motion, inverseMotion, cellCentre(i % columns, columns, registration.width),
                   cellCentre(i / columns, rows, registration.height), radius, similarities[i]);
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
                  _KRStabilizationParameters* stabilization, int columns, int rows) {
  setIdentity(motion);
  setIdentity(inverseMotion);
  const auto cells = static_cast<size_t>(columns) * static_cast<size_t>(rows);
  bool valid = false;
  if (takeMatches(registration, matches)) {
    auto* similarities = static_cast<float(*)[4]>(std::calloc(cells, sizeof(float[4])));
    valid = similarities != nullptr && fitCells(motion, inverseMotion, *registration, similarities, columns, rows);
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
    beginSequence(frame, registration, firstFrame);
    resetPath(stabilization, *registration, columns, rows);
    return;
  }
  trackPoints(registration, frame);
  *valid = fitFrameGrid(motion, inverseMotion, matches, registration, stabilization, columns, rows) ? 1 : 0;
  if (*valid == 0) clearMotionField(registration);
  advanceTracker(registration);
}

}  // namespace noxel
