#include "platform/frame_clock.h"

#include <sys/time.h>

namespace noxel::platform {
namespace {

TimeOfDay wallClock(void*) {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return {now.tv_sec, now.tv_usec};
}

FrameClock currentClock = wallClock;
void* currentContext = nullptr;

}  // namespace

TimeOfDay frameTime() {
  return currentClock(currentContext);
}

void setFrameClock(FrameClock clock, void* context) {
  currentClock = clock != nullptr ? clock : wallClock;
  currentContext = context;
}

}  // namespace noxel::platform
