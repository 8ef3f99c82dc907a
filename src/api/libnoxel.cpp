// The C interface of libnoxel: what needs no enhancer.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include "api/enhancer.h"
#include "noxel/enhancer.h"

namespace {

// Fills a structure of the caller's, which may be shorter than ours when it was compiled with an older header.
template <typename Record>
int initialise(Record* record, size_t size, const Record& defaults) {
  if (record == nullptr || size < sizeof(size_t) || size > sizeof(Record)) return NOXEL_ERROR_ARGUMENT;
  std::memcpy(record, &defaults, size);
  record->size = size;
  return NOXEL_OK;
}

int check(const noxel_config& config) {
  const bool sized = config.width > 0 && config.height > 0 && config.width <= INT_MAX / 8 / config.height;
  const bool moded = config.mode >= NOXEL_MODE_THREE_FRAMES && config.mode <= NOXEL_MODE_CLEAR;
  const bool chosen = config.quality >= NOXEL_QUALITY_FAST && config.quality <= NOXEL_QUALITY_BEST &&
                      (config.delivery == NOXEL_COMPLETE || config.delivery == NOXEL_LIVE);
  if (!sized || !moded || !chosen || config.frame_interval_us < 0) return NOXEL_ERROR_ARGUMENT;
  if (config.window != nullptr && (config.delivery == NOXEL_COMPLETE || config.mode == NOXEL_MODE_PICTURE))
    return NOXEL_ERROR_UNSUPPORTED;
  if ((config.share_context == nullptr) != (config.share_display == nullptr)) return NOXEL_ERROR_ARGUMENT;
  return NOXEL_OK;
}

// None, or one of this header's size or an older one's.
bool isWhole(const noxel_frame_info* info) {
  return info == nullptr || (info->size >= sizeof(size_t) && info->size <= sizeof(noxel_frame_info));
}

noxel::Enhancer* behind(noxel_enhancer* enhancer) {
  return reinterpret_cast<noxel::Enhancer*>(enhancer);
}

const noxel::Enhancer* behind(const noxel_enhancer* enhancer) {
  return reinterpret_cast<const noxel::Enhancer*>(enhancer);
}

}  // namespace

static_assert(NOXEL_VERSION_NUMBER == NOXEL_PROJECT_VERSION_NUMBER, "the header's version is the project's");

extern "C" {

const char* noxel_version(void) {
  return NOXEL_VERSION;
}

int noxel_version_number(void) {
  return NOXEL_VERSION_NUMBER;
}

const char* noxel_error_text(int result) {
  switch (result) {
    case NOXEL_OK:
      return "success";
    case NOXEL_AGAIN:
      return "not now: receive frames first, or send more";
    case NOXEL_END:
      return "no more frames";
    case NOXEL_DROPPED:
      return "frame dropped: the one before is still being enhanced";
    case NOXEL_ERROR_ARGUMENT:
      return "invalid argument";
    case NOXEL_ERROR_MEMORY:
      return "out of memory or threads";
    case NOXEL_ERROR_NO_GL:
      return "no usable OpenGL ES 3.0 for frames of this size";
    case NOXEL_ERROR_UNSUPPORTED:
      return "not supported in this configuration";
    default:
      return "unknown result";
  }
}

const noxel_setting_info* noxel_settings(size_t* count) {
  if (count != nullptr) *count = noxel::kSettingCount;
  return &noxel::settingInfo(0);
}

const noxel_setting_info* noxel_setting(const char* name) {
  return name != nullptr ? noxel::findSetting(name) : nullptr;
}

int noxel_config_init(noxel_config* config, size_t size, int width, int height) {
  noxel_config defaults = {};
  defaults.width = width;
  defaults.height = height;
  defaults.mode = NOXEL_MODE_CLEAR;
  defaults.quality = NOXEL_QUALITY_BALANCED;
  defaults.delivery = NOXEL_COMPLETE;
  defaults.lead_in = 1;
  return initialise(config, size, defaults);
}

int noxel_frame_init(noxel_frame* frame, size_t size) {
  return initialise(frame, size, {});
}

int noxel_frame_info_init(noxel_frame_info* info, size_t size) {
  return initialise(info, size, {});
}

int noxel_create(const noxel_config* config, noxel_enhancer** enhancer) {
  if (config == nullptr || enhancer == nullptr) return NOXEL_ERROR_ARGUMENT;
  noxel_config complete;
  noxel_config_init(&complete, sizeof(complete), 0, 0);
  if (config->size < offsetof(noxel_config, log) || config->size > sizeof(complete)) return NOXEL_ERROR_ARGUMENT;
  std::memcpy(&complete, config, config->size);
  const int result = check(complete);
  if (result != NOXEL_OK) return result;
  noxel::Enhancer* made = nullptr;
  const int error = noxel::Enhancer::make(complete, &made);
  if (error == NOXEL_OK) *enhancer = reinterpret_cast<noxel_enhancer*>(made);
  return error;
}

void noxel_free(noxel_enhancer** enhancer) {
  if (enhancer == nullptr || *enhancer == nullptr) return;
  delete behind(*enhancer);
  *enhancer = nullptr;
}

int noxel_set(noxel_enhancer* enhancer, int setting, double value) {
  return enhancer != nullptr ? behind(enhancer)->set(setting, value) : NOXEL_ERROR_ARGUMENT;
}

int noxel_set_text(noxel_enhancer* enhancer, const char* name, const char* value) {
  const noxel_setting_info* setting = noxel_setting(name);
  double number = 0;
  if (setting == nullptr || value == nullptr || !noxel::parseSetting(*setting, value, &number))
    return NOXEL_ERROR_ARGUMENT;
  return noxel_set(enhancer, setting->id, number);
}

int noxel_get(const noxel_enhancer* enhancer, int setting, double* value) {
  if (enhancer == nullptr || value == nullptr || setting < 0 || setting >= noxel::kSettingCount)
    return NOXEL_ERROR_ARGUMENT;
  *value = behind(enhancer)->get(setting);
  return NOXEL_OK;
}

int noxel_send(noxel_enhancer* enhancer, const noxel_frame* frame) {
  if (enhancer == nullptr || frame == nullptr || frame->size < sizeof(noxel_frame)) return NOXEL_ERROR_ARGUMENT;
  const noxel::platform::LogScope log(behind(enhancer)->log());
  return behind(enhancer)->send(*frame);
}

int noxel_receive(noxel_enhancer* enhancer, noxel_frame* frame, noxel_frame_info* info) {
  if (enhancer == nullptr || (frame != nullptr && frame->size < sizeof(noxel_frame)) || !isWhole(info))
    return NOXEL_ERROR_ARGUMENT;
  const noxel::platform::LogScope log(behind(enhancer)->log());
  return behind(enhancer)->receive(frame, info);
}

int noxel_flush(noxel_enhancer* enhancer) {
  return enhancer != nullptr ? behind(enhancer)->flush() : NOXEL_ERROR_ARGUMENT;
}

int noxel_reset(noxel_enhancer* enhancer) {
  return enhancer != nullptr ? behind(enhancer)->reset() : NOXEL_ERROR_ARGUMENT;
}

int noxel_latency_frames(const noxel_enhancer* enhancer) {
  return enhancer != nullptr ? behind(enhancer)->latencyFrames() : NOXEL_ERROR_ARGUMENT;
}

int noxel_render_texture(noxel_enhancer* enhancer, unsigned texture, int width, int height, noxel_frame_info* info) {
  if (enhancer == nullptr || !isWhole(info)) return NOXEL_ERROR_ARGUMENT;
  const noxel::platform::LogScope log(behind(enhancer)->log());
  return behind(enhancer)->renderTexture(texture, width, height, info);
}

int noxel_set_corners(noxel_enhancer* enhancer, int picture, const float* corners) {
  return enhancer != nullptr ? behind(enhancer)->setCorners(picture, corners) : NOXEL_ERROR_ARGUMENT;
}

int noxel_tracks(const noxel_enhancer* enhancer, int own, noxel_track* tracks, int capacity) {
  if (enhancer == nullptr || capacity < 0 || (tracks == nullptr && capacity > 0) || own < 0 || own > 1)
    return NOXEL_ERROR_ARGUMENT;
  const noxel::FrameDiagnostics* of = behind(enhancer)->diagnostics();
  if (of == nullptr) return 0;
  std::copy_n(of->tracks[own], std::min(capacity, of->trackCounts[own]), tracks);
  return of->trackCounts[own];
}

int noxel_history(const noxel_enhancer* enhancer, unsigned char* levels, size_t capacity, int* width, int* height) {
  if (enhancer == nullptr || width == nullptr || height == nullptr || (levels == nullptr && capacity > 0))
    return NOXEL_ERROR_ARGUMENT;
  const noxel::FrameDiagnostics* of = behind(enhancer)->diagnostics();
  if (of == nullptr || of->historyWidth == 0) return NOXEL_AGAIN;
  *width = of->historyWidth;
  *height = of->historyHeight;
  const size_t count = static_cast<size_t>(*width) * static_cast<size_t>(*height);
  if (capacity < count) return NOXEL_ERROR_ARGUMENT;
  std::copy_n(of->history, count, levels);
  return NOXEL_OK;
}

int noxel_pass(const noxel_enhancer* enhancer, int index, const char** name, uint64_t* nanoseconds) {
  if (enhancer == nullptr || index < 0 || name == nullptr || nanoseconds == nullptr) return NOXEL_ERROR_ARGUMENT;
  const noxel::FrameDiagnostics* of = behind(enhancer)->diagnostics();
  if (of == nullptr || index >= of->passCount) return NOXEL_END;
  *name = of->passes[index].name;
  *nanoseconds = of->passes[index].nanoseconds;
  return NOXEL_OK;
}
}
