// Processor time, which other load on the machine disturbs less than the clock on the wall. Any thread.
#pragma once

#include <time.h>

namespace noxel {

// Of all threads of this process so far.
inline double processorMilliseconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return 1e3 * static_cast<double>(now.tv_sec) + 1e-6 * static_cast<double>(now.tv_nsec);
}

}  // namespace noxel
