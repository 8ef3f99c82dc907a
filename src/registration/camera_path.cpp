#include "registration/camera_path.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "registration/matrix.h"

namespace noxel {
namespace {

constexpr float kRest[kPathValues] = {0, 0, 0, 1};
constexpr float kMaxShift = 0.03f;  // of the registration image's side
constexpr float kMaxAngle = 0.1f;   // radians
constexpr float kMaxScale = 0.02f;
constexpr float kAlpha = 0.05f;
constexpr float kBeta = 0.02f;

// Steps the filter to where the raw path is, and sets the matrix.
bool followRawPath(_KRStabilizationParameters* stabilization) {
  const float* raw = stabilization->rawPath;
  float* smoothed = stabilization->smoothedPath;
  if (!(raw[3] >= 1e-3f && raw[3] <= 1e3f)) return false;
  updatePathFilter(&stabilization->pathFilter, raw, smoothed);

  const float theta = smoothed[2] - raw[2];
  const float k = smoothed[3] / raw[3];
  const float matrix[9] = {k * std::cos(theta),
                           k * std::sin(theta),
                           smoothed[0] - raw[0],
                           -k * std::sin(theta),
                           k * std::cos(theta),
                           smoothed[1] - raw[1],
                           0.0f,
                           0.0f,
                           1.0f};
  std::copy_n(matrix, 9, stabilization->stabilizationMatrix);
  return std::all_of(matrix, matrix + 9, [](float value) { return std::isfinite(value); });
}

}  // namespace

bool initPathFilter(PathFilter* filter, const float* values, const float* limits, int count, float alpha, float beta) {
  if (filter->components == nullptr || filter->count != count) {
    std::free(filter->components);
    *filter = {};
    filter->components =
        static_cast<PathFilterComponent*>(std::calloc(static_cast<size_t>(count), sizeof(*filter->components)));
    if (filter->components == nullptr) return false;
    filter->count = count;
  }
  for (int i = 0; i < count; ++i) filter->components[i] = {0.0f, values[i], values[i], limits[i]};
  filter->alpha = alpha;
  filter->beta = beta;
  return true;
}

float holtStep(float level, float* trend, float x, float alpha, float beta) {
  const double predicted = static_cast<double>(level) + static_cast<double>(*trend);
  const double error = static_cast<double>(x) - predicted;
  *trend = static_cast<float>(static_cast<double>(*trend) + static_cast<double>(beta) * error);
  return static_cast<float>(predicted + static_cast<double>(alpha) * error);
}

void updatePathFilter(PathFilter* filter, const float* raw, float* smoothed) {
  for (int i = 0; i < filter->count; ++i) {
    PathFilterComponent& component = filter->components[i];
    const float alpha = i < 2 ? filter->alpha : 3.0f * filter->alpha;
    const double keep = 1.0 - static_cast<double>(alpha);
    const double limit = component.limit;

    // Distance from the raw value after this step; the level is moved so that it ends at the limit.
    const auto deviation = [&] {
      return keep * (static_cast<double>(component.trend) + static_cast<double>(component.level) -
                     static_cast<double>(raw[i]));
    };
    const double above = deviation() - limit;
    if (above > 0.0) component.level = static_cast<float>(static_cast<double>(component.level) - above / keep);
    const double below = -limit - deviation();
    if (below > 0.0) component.level = static_cast<float>(static_cast<double>(component.level) + below / keep);
    component.level = holtStep(component.level, &component.trend, raw[i], alpha, filter->beta);
    smoothed[i] = component.level;

    // Damp the trend near the raw path to avoid overshoot.
    const double distance = std::fabs(static_cast<double>(smoothed[i]) - static_cast<double>(raw[i]));
    if (distance < limit / 2.0) component.trend *= 0.9f;
    if (distance < limit / 4.0) component.trend *= 0.9f;
    if (distance < limit / 32.0) component.trend *= 0.6f;
  }
}

bool initStabilization(_KRStabilizationParameters* stabilization, int columns, int rows, int width, int height) {
  const float limits[kPathValues] = {kMaxShift * static_cast<float>(width), kMaxShift * static_cast<float>(height),
                                     kMaxAngle, kMaxScale};
  bool complete = true;
  for (int i = 0; i < columns * rows; ++i) {
    _KRStabilizationParameters& record = stabilization[i];
    std::copy_n(kRest, kPathValues, record.rawPath);
    std::copy_n(kRest, kPathValues, record.smoothedPath);
    setIdentity(record.stabilizationMatrix);
    complete = initPathFilter(&record.pathFilter, kRest, limits, kPathValues, kAlpha, kBeta) && complete;
  }
  return complete;
}

void releaseStabilization(_KRStabilizationParameters* stabilization, int columns, int rows) {
  for (int i = 0; i < columns * rows; ++i) {
    std::free(stabilization[i].pathFilter.components);
    stabilization[i].pathFilter = {};
  }
}

bool stepStabilization(_KRStabilizationParameters* stabilization, const float* similarity) {
  float* raw = stabilization->rawPath;
  if (stabilization->pathFilter.count != kPathValues) return false;

  const float a = similarity[2];
  const float b = similarity[3];
  raw[0] += similarity[0];
  raw[1] += similarity[1];
  raw[2] += std::atan(b / (a + 1.0f));
  raw[3] *= std::sqrt(a * a + a + 1.0f + b * b + a);  // (1 + a)^2 + b^2
  return followRawPath(stabilization);
}

PathState pathState(const _KRStabilizationParameters& stabilization) {
  PathState state = {};
  std::copy_n(stabilization.rawPath, kPathValues, state.rawPath);
  std::copy_n(stabilization.pathFilter.components, kPathValues, state.components);
  return state;
}

// With the raw path moved by the trend, a step of the filter multiplies its distance from the smoothed path by 1 - alpha.
bool coastStabilization(_KRStabilizationParameters* stabilization, const PathState& state) {
  if (stabilization->pathFilter.count != kPathValues) return false;
  std::copy_n(state.components, kPathValues, stabilization->pathFilter.components);
  for (int i = 0; i < kPathValues; ++i) stabilization->rawPath[i] = state.rawPath[i] + state.components[i].trend;
  return followRawPath(stabilization);
}

}  // namespace noxel
