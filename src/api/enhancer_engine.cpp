#include "api/enhancer_engine.h"

#include <algorithm>

namespace noxel {
namespace {

// The camera path moves the picture by at most 3 % and turns it a little: this much zoom hides the edges.
constexpr float kStabilizationCrop = 1.17f;

}  // namespace

EnhancerEngine::~EnhancerEngine() {
  if (engine_ != nullptr) releaseEngine(&engine_);
}

int EnhancerEngine::make(const noxel_config& config, int width, int height, platform::LogTarget* log) {
  EngineHost host;
  host.cacheDirectory = config.cache_directory != nullptr ? config.cache_directory : "";
  host.log = log;
  host.clock = SequenceClock::read;
  host.clockContext = &clock;
  host.shareDisplay = config.share_display;
  host.shareContext = config.share_context;
  mode_ = config.mode;
  live_ = config.delivery == NOXEL_LIVE;
  if (initializeEngine(width, height, config.mode, 1, 1, 1, config.window, host, &engine_) != 0)
    return NOXEL_ERROR_MEMORY;
  if (!ready()) return NOXEL_ERROR_NO_GL;
  if (mode_ == NOXEL_MODE_PICTURE) return NOXEL_OK;
  easeLosses(engine_, true);
  return measureNoise(engine_, true) == 0 ? NOXEL_OK : NOXEL_ERROR_MEMORY;
}

void EnhancerEngine::apply(const double* settings) {
  // A zoom that is set again would end the easing of the stabilisation's crop.
  if (applied_ && std::equal(settings, settings + kSettingCount, latest_)) return;
  const bool zooms = !applied_ || settings[NOXEL_ZOOM] != latest_[NOXEL_ZOOM] ||
                     settings[NOXEL_STABILIZE] != latest_[NOXEL_STABILIZE] ||
                     settings[NOXEL_PER_FRAME] != latest_[NOXEL_PER_FRAME];
  applied_ = true;
  std::copy_n(settings, kSettingCount, latest_);
  const auto whole = [&](int id) { return static_cast<int>(settings[id]); };
  const auto set = [&](unsigned parameter, int value) { KRSetParameter(parameter, &value, engine_); };
  const bool perFrame = settings[NOXEL_PER_FRAME] != 0;
  const bool stabilize = settings[NOXEL_STABILIZE] != 0;
  // A file is cropped from its first frame on in mode 5; a live picture, and the other modes, ease into it.
  const bool cropped = !live_ && mode_ == NOXEL_MODE_CLEAR && stabilize && !perFrame;
  const auto asked = static_cast<float>(settings[NOXEL_ZOOM]);
  const float zoom = cropped ? std::max(asked, kStabilizationCrop) : asked;
  if (zooms) KRSetParameter(mode_ == NOXEL_MODE_PICTURE ? kParamTotalZoom : kParamZoom, &zoom, engine_);
  set(kParamQuality, whole(NOXEL_QUALITY));
  set(kParamLightMode, perFrame ? 1 : 0);
  set(kParamNoiseReductionStrength, whole(NOXEL_STRENGTH));
  set(kParamExposureStrength, whole(NOXEL_EXPOSURE));
  set(kParamDeghosting, whole(NOXEL_DEGHOSTING));
  set(kParamSharpening, whole(NOXEL_SHARPENING));
  set(kParamContrast, whole(NOXEL_CONTRAST));
  set(kParamFlipChroma, whole(NOXEL_FLIP_CHROMA));
  if (mode_ != NOXEL_MODE_STABILIZE) set(kParamStabilization, stabilize ? 1 : 0);  // it is always on there
}

}  // namespace noxel
