// The C interface.
#include "noxel/noxel.h"

#include <cstdio>
#include <ctime>

#include "api/engine_control.h"
#include "platform/log.h"
#include "platform/signal.h"

#if !defined(NOXEL_BUILD_DATE)
#define NOXEL_BUILD_DATE __DATE__
#define NOXEL_BUILD_TIME __TIME__
#endif

namespace {

pthread_mutex_t versionMutex = PTHREAD_MUTEX_INITIALIZER;
char versionText[128];  // filled under versionMutex, always with the same bytes

constexpr unsigned kInternalIds[] = {noxel::kParamStabilizationAlias, noxel::kParamNoiseReductionStrength,
                                     noxel::kParamLightMode, noxel::kParamImageFormat, noxel::kParamExposureStrength};

// Every result but 1 counts as success.
int folded(int internalResult) {
  return internalResult == 1 ? 1 : 0;
}

}  // namespace

extern "C" {

const char* Noxel_GetVersion(void) {
  noxel::Lock lock(versionMutex);
  if (versionText[0] == '\0') {
    std::snprintf(versionText, sizeof(versionText), "Version: %s, Build date: %s %s", NOXEL_VERSION, NOXEL_BUILD_DATE,
                  NOXEL_BUILD_TIME);
  }
  return versionText;
}

int Noxel_Initialize(int width, int height, _KRSuperResEngine** handle) {
  return Noxel_InitializeWithWindow(width, height, nullptr, handle);
}

int Noxel_InitializeWithWindow(int width, int height, void* window, _KRSuperResEngine** handle) {
  NOXEL_LOG_INFO("Noxel %s", Noxel_GetVersion());
  return folded(noxel::initializeEngine(width, height, noxel::kModeEnhance, 2, 2, 0, window, handle));
}

int Noxel_SetParameter(unsigned id, void* value, _KRSuperResEngine* engine) {
  if (id >= sizeof(kInternalIds) / sizeof(kInternalIds[0])) return 1;
  return folded(noxel::KRSetParameter(kInternalIds[id], value, engine));
}

int Noxel_ProcessFrame(unsigned char* frame, _KRSuperResEngine* engine) {
  return folded(noxel::KRProcessFrame(frame, engine));
}

int Noxel_Release(_KRSuperResEngine** handle) {
  return folded(noxel::releaseEngine(handle));
}

uint64_t KRTimeNow(void) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t KRTimeDiff(uint64_t a, uint64_t b) {
  return a <= b ? b - a : a - b;
}

void KRTimerStart(KRTimer* timer) {
  timer->start = KRTimeNow();
  timer->stop = 0;
}

void KRTimerStop(KRTimer* timer) {
  timer->stop = KRTimeNow();
}

void KRTimerReset(KRTimer* timer) {
  timer->start = 0;
  timer->stop = 0;
}

uint64_t KRTimerElapsed(const KRTimer* timer) {
  return KRTimeDiff(timer->start, timer->stop != 0 ? timer->stop : KRTimeNow());
}
}
