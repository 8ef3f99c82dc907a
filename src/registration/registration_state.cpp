#include "registration/registration_state.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "registration/tracker/point_tracker_state.h"

namespace noxel {
namespace {

// The tracker counts pixels in int, and its images, two bytes a pixel, must fit a ptrdiff_t on 32-bit machines.
constexpr int kMaxPixels = INT_MAX / 4;

}  // namespace

int createRegistration(int width, int height, int channels, _KROFRegistration** state) {
  if (width < 1 || height < 1 || int64_t{width} * height > kMaxPixels || channels != 1) return 1;
  auto* created = static_cast<_KROFRegistration*>(std::calloc(1, sizeof(_KROFRegistration)));
  if (created == nullptr) return 1;
  created->width = width;
  created->height = height;
  created->maxPoints = kMaxPoints;
  created->levels = std::clamp(static_cast<int>(std::lround(std::log2(width / 16.0))), 2, tracker::kMaxLevels);
  created->noiseScale = 1.0f;
  created->tracker = new (std::nothrow) PointTracker();
  if (created->tracker == nullptr || !created->tracker->allocate(width, height, created->levels)) {
    releaseRegistration(&created);
    return 1;
  }
  *state = created;
  return 0;
}

void releaseRegistration(_KROFRegistration** state) {
  if (state == nullptr || *state == nullptr) return;
  delete (*state)->tracker;
  std::free(*state);
  *state = nullptr;
}

}  // namespace noxel
