#include "view/view_controls.h"

#include <algorithm>
#include <iterator>

namespace noxel::tool {
namespace {

constexpr int kStrengthStep = 5;
constexpr int kExposureStep = 25;

}  // namespace

Press press(SDL_Keycode key, bool repeated, LiveLook& look) {
  switch (key) {
    case SDLK_UP:
      look.strength = std::min(look.strength + kStrengthStep, 100);
      return Press::kLookChanged;
    case SDLK_DOWN:
      look.strength = std::max(look.strength - kStrengthStep, 0);
      return Press::kLookChanged;
    default:
      break;
  }
  if (repeated) return Press::kNothing;
  switch (key) {
    case SDLK_d:
      look.spatial = !look.spatial;
      return Press::kLookChanged;
    case SDLK_b:
      look.stabilize = !look.stabilize;
      return Press::kLookChanged;
    case SDLK_f:
      if (look.engineMode != NOXEL_MODE_CLEAR) return Press::kNothing;
      look.quality = (look.quality + 1) % static_cast<int>(std::size(kQualityNames));
      return Press::kLookChanged;
    case SDLK_s:
      look.split = !look.split;
      return Press::kLookChanged;
    case SDLK_e:
      look.exposure = look.exposure >= 100 ? 0 : (look.exposure / kExposureStep + 1) * kExposureStep;
      return Press::kLookChanged;
    case SDLK_SPACE:
      return Press::kPause;
    case SDLK_q:
    case SDLK_ESCAPE:
      return Press::kQuit;
    default:
      return Press::kNothing;
  }
}

std::string describe(const LiveLook& look) {
  std::string text = look.spatial ? "spatial" : "temporal";
  if (look.engineMode == NOXEL_MODE_CLEAR) text += std::string(", ") + kQualityNames[look.quality];
  text += ", strength " + std::to_string(look.strength) + ", exposure " + std::to_string(look.exposure);
  if (look.stabilize && !look.spatial) text += ", stabilised";
  if (look.split) text += ", split";
  return text;
}

}  // namespace noxel::tool
