#include "enhance/look.h"

#include <algorithm>
#include <utility>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

struct Readers {
  const char* option;
  const char* temporal;  // modes that read it on this path; mode 4 has one path
  const char* spatial;
};

constexpr Readers kReaders[] = {
    {"--denoise", "01235", "01235"},  //
    {"--quality", "5", "5"},         {"--strength", "135", "01235"},      {"--exposure", "15", "15"},
    {"--deghosting", "13", ""},      {"--stabilize", "01235", ""},        {"--overlay", "135", ""},
    {"--sharpening", "024", "04"},   {"--contrast", "024", "04"},         {"--zoom", "012345", "045"},
    {"--flip-chroma", "02", "02"},   {"--enhanced-quad", "0123", "0123"}, {"--untouched-quad", "0123", "0123"},
    {"--no-warm-up", "15", "12"},
};

}  // namespace

bool isRead(const Look& look, const std::string& option) {
  const auto* readers = std::find_if(std::begin(kReaders), std::end(kReaders),
                                     [&](const Readers& entry) { return option == entry.option; });
  if (readers == std::end(kReaders)) return true;
  const std::string modes = look.spatial() && look.mode() != NOXEL_MODE_PICTURE ? readers->spatial : readers->temporal;
  return modes.find(static_cast<char>('0' + look.mode())) != std::string::npos;
}

void checkIsRead(const Look& look, const std::vector<std::string>& options) {
  for (const std::string& option : options) {
    if (isRead(look, option)) continue;
    const std::string path = look.mode() == NOXEL_MODE_PICTURE ? "" : " --denoise " + look.denoise;
    throw ToolError(kExitUsage, option + " has no effect in --engine-mode " + std::to_string(look.mode()) + path +
                                    "; leave it out");
  }
}

bool leadsIn(const Look& look) {
  return look.mode() == NOXEL_MODE_CLEAR && !look.spatial() && look.strength > 0;
}

bool followsExposure(const Look& look) {
  return look.mode() == NOXEL_MODE_ENHANCE || (look.mode() == NOXEL_MODE_STABILIZE && look.spatial());
}

void setParameters(const Look& look, noxel_enhancer* enhancer) {
  const std::pair<int, double> settings[] = {{NOXEL_STRENGTH, look.strength},
                                             {NOXEL_EXPOSURE, look.neutralExposure ? 0 : look.exposure},
                                             {NOXEL_STABILIZE, look.stabilize ? 1 : 0},
                                             {NOXEL_ZOOM, static_cast<double>(look.zoom)},
                                             {NOXEL_PER_FRAME, look.spatial() ? 1 : 0},
                                             {NOXEL_SHARPENING, look.sharpening},
                                             {NOXEL_CONTRAST, look.contrast},
                                             {NOXEL_DEGHOSTING, look.deghosting},
                                             {NOXEL_FLIP_CHROMA, look.flipChroma ? 1 : 0}};
  for (const auto& [setting, value] : settings) noxel_set(enhancer, setting, value);
  if (!look.enhancedQuad.empty()) noxel_set_corners(enhancer, NOXEL_PICTURE_ENHANCED, look.enhancedQuad.data());
  if (!look.untouchedQuad.empty()) noxel_set_corners(enhancer, NOXEL_PICTURE_AS_IT_CAME, look.untouchedQuad.data());
}

}  // namespace noxel::tool
