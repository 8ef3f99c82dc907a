// The engine's parameters as the tool offers them, and which modes read which.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "noxel/enhancer.h"

namespace noxel::tool {

// Above the engine's own 5: moving objects leave shorter trails, and static parts look the same.
constexpr int kDefaultDeghosting = 8;

constexpr int kDefaultMode = NOXEL_MODE_CLEAR;
constexpr int defaultStrength(int mode) {
  return mode == NOXEL_MODE_CLEAR ? 50 : 65;
}

enum Quality : int { kFast = 0, kBalanced = 1, kBest = 2 };  // values of kParamQuality
constexpr const char* kQualityNames[] = {"fast", "balanced", "best"};

struct Look {
  int engineMode = kDefaultMode;
  bool neutralExposure = false;      // mode 5: tone is left alone; modes 1 and 3: NOXEL_MODE_NEUTRAL_EXPOSURE
  std::string denoise = "temporal";  // or "spatial": light mode 0 or 1
  int quality = kBalanced;           // mode 5
  int strength = defaultStrength(kDefaultMode);  // 0..100, as the next three
  int exposure = 50;
  int sharpening = 2;
  int contrast = 30;
  int deghosting = kDefaultDeghosting;  // 0..10
  float zoom = 1.0f;                    // 1..32
  bool stabilize = false;
  bool flipChroma = false;
  // Corners x, y: top left, bottom left, top right, bottom right; -1..1, y up. Empty: the whole picture; none.
  std::vector<float> enhancedQuad;
  std::vector<float> untouchedQuad;

  int mode() const {
    return neutralExposure && engineMode != NOXEL_MODE_CLEAR ? NOXEL_MODE_NEUTRAL_EXPOSURE : engineMode;
  }
  bool spatial() const { return denoise == "spatial"; }
};

// Usage error for the first of these options (names as on the command line) that the look's mode and path do not read.
void checkIsRead(const Look& look, const std::vector<std::string>& options);
bool isRead(const Look& look, const std::string& option);

// Whether gamma and gain ease from frame to frame.
bool followsExposure(const Look& look);

// Whether a first frame is shown the ones after it.
bool leadsIn(const Look& look);

void setParameters(const Look& look, noxel_enhancer* enhancer);

}  // namespace noxel::tool
