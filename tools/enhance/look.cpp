#include "enhance/look.h"

#include <algorithm>

#include "common/tool_error.h"

namespace noxel::tool {
namespace {

constexpr float kStabilizationCrop = 1.17f;

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

size_t leadInFrames(const Look& look) {
  constexpr size_t kFramesInHistory = 16;
  return look.mode() == kModeClear && !look.spatial() && look.strength > 0 ? kFramesInHistory - 1 : 0;
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
  // Mode 5 has the crop from the first frame on; the others ease into it.
  const bool cropped = look.mode() == kModeClear && look.stabilize && !look.spatial();
  const float zoom = cropped ? std::max(look.zoom, kStabilizationCrop) : look.zoom;
  KRSetParameter(kParamZoom, &zoom, engine);
  set(kParamQuality, look.quality);
  set(kParamLightMode, look.spatial() ? 1 : 0);
  set(kParamNoiseReductionStrength, look.strength);
  set(kParamExposureStrength, look.neutralExposure ? 0 : look.exposure);
  set(kParamDeghosting, look.deghosting);
  set(kParamFlipChroma, look.flipChroma ? 1 : 0);
  if (look.mode() != kModeStabilize) set(kParamStabilization, look.stabilize ? 1 : 0);  // it is always on there
  easeLosses(engine, true);
  setQuad(kParamQuadB, look.enhancedQuad, engine);
  setQuad(kParamQuadA, look.untouchedQuad, engine);
}

}  // namespace noxel::tool
