#include "enhance/look.h"

#include <algorithm>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

struct Readers {
  const char* option;
  const char* temporal;  // modes that read it on this path; mode 4 has one path
  const char* spatial;
};

constexpr Readers kReaders[] = {
    {"--denoise", "0123", "0123"},  //
    {"--strength", "13", "0123"},
    {"--exposure", "1", "1"},
    {"--deghosting", "13", ""},
    {"--stabilize", "0123", ""},
    {"--overlay", "13", ""},
    {"--sharpening", "024", "04"},
    {"--contrast", "024", "04"},
    {"--zoom", "01234", "04"},
    {"--flip-chroma", "02", "02"},
    {"--enhanced-quad", "0123", "0123"},
    {"--untouched-quad", "0123", "0123"},
    {"--no-warm-up", "1", "12"},
};

// Flipped: off-screen, the first row of the picture is at y = -1 in the engine.
void setQuad(unsigned id, std::vector<float> corners, _KRSuperResEngine* engine) {
  if (corners.empty()) return;
  for (size_t i = 1; i < corners.size(); i += 2) corners[i] = -corners[i];
  KRSetParameter(id, corners.data(), engine);
}

}  // namespace

bool isRead(const Look& look, const std::string& option) {
  const auto* readers = std::find_if(std::begin(kReaders), std::end(kReaders),
                                     [&](const Readers& entry) { return option == entry.option; });
  if (readers == std::end(kReaders)) return true;
  const std::string modes =
      look.spatial() && look.mode() != kModeSynchronousRgba ? readers->spatial : readers->temporal;
  return modes.find(static_cast<char>('0' + look.mode())) != std::string::npos;
}

void checkIsRead(const Look& look, const std::vector<std::string>& options) {
  for (const std::string& option : options) {
    if (isRead(look, option)) continue;
    const std::string path = look.mode() == kModeSynchronousRgba ? "" : " --denoise " + look.denoise;
    throw ToolError(kExitUsage, option + " has no effect in --engine-mode " + std::to_string(look.mode()) + path +
                                    "; leave it out");
  }
}

bool followsExposure(const Look& look) {
  return look.mode() == kModeEnhance || (look.mode() == kModeStabilize && look.spatial());
}

void setParameters(const Look& look, _KRSuperResEngine* engine) {
  const auto set = [engine](unsigned id, int value) { KRSetParameter(id, &value, engine); };
  set(kParamSharpening, look.sharpening);
  set(kParamContrast, look.contrast);
  if (look.mode() == kModeSynchronousRgba) {
    KRSetParameter(kParamTotalZoom, &look.zoom, engine);
    return;
  }
  KRSetParameter(kParamZoom, &look.zoom, engine);
  set(kParamLightMode, look.spatial() ? 1 : 0);
  set(kParamNoiseReductionStrength, look.strength);
  set(kParamExposureStrength, look.exposure);
  set(kParamDeghosting, look.deghosting);
  set(kParamFlipChroma, look.flipChroma ? 1 : 0);
  if (look.mode() != kModeStabilize) set(kParamStabilization, look.stabilize ? 1 : 0);  // it is always on there
  easeLosses(engine, true);
  setQuad(kParamQuadB, look.enhancedQuad, engine);
  setQuad(kParamQuadA, look.untouchedQuad, engine);
}

}  // namespace noxel::tool
