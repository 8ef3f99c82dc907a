// The time of day by which breaks in a frame sequence are found.
#pragma once

#include <cstdint>

namespace noxel::platform {

struct TimeOfDay {
  int64_t seconds;
  int64_t microseconds;  // 0..999999
};

// The clock that is in force: gettimeofday unless replaced.
TimeOfDay frameTime();

// A file is enhanced by its presentation times and a test by times of its own making. Null restores gettimeofday. The
// clock is process-wide, as the time of the last frame is; set it while no frame is being processed.
using FrameClock = TimeOfDay (*)(void* context);
void setFrameClock(FrameClock clock, void* context);

}  // namespace noxel::platform
