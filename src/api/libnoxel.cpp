// The C interface of libnoxel: what needs no enhancer.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include "api/caller_log.h"
#include "api/enhancer.h"
#include "api/meter.h"
#include "gl/runtime/driver_info.h"
#include "noxel/enhancer.h"
#include "platform/egl_display.h"
#include "tonemapping/tone_curve.h"

namespace {

// Fills a structure of the caller's, which may be shorter than ours when it was compiled with an older header.
template <typename Record>
int initialise(Record* record, size_t size, const Record& defaults) {
  if (record == nullptr || size < sizeof(size_t) || size > sizeof(Record)) return NOXEL_ERROR_ARGUMENT;
  std::memcpy(record, &defaults, size);
  record->size = size;
  return NOXEL_OK;
}

bool isSized(const noxel_config& config) {
  return config.width > 0 && config.height > 0 && config.width <= INT_MAX / 8 / config.height;
}

// The caller's, which may be an older header's, with defaults for the rest. False: no configuration.
bool complete(const noxel_config* given, noxel_config* config) {
  noxel_config_init(config, sizeof(*config), 0, 0);
  if (given == nullptr || given->size < offsetof(noxel_config, log) || given->size > sizeof(*config)) return false;
  std::memcpy(config, given, given->size);
  return true;
}

int check(const noxel_config& config) {
  const bool moded = config.mode >= NOXEL_MODE_THREE_FRAMES && config.mode <= NOXEL_MODE_CLEAR;
  const bool chosen = config.quality >= NOXEL_QUALITY_FAST && config.quality <= NOXEL_QUALITY_BEST &&
                      (config.delivery == NOXEL_COMPLETE || config.delivery == NOXEL_LIVE);
  if (!isSized(config) || !moded || !chosen || config.frame_interval_us < 0) return NOXEL_ERROR_ARGUMENT;
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

noxel::Meter* behind(noxel_meter* meter) {
  return reinterpret_cast<noxel::Meter*>(meter);
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

int noxel_query_driver(noxel_driver* driver, noxel_log_function log, void* log_context) {
  if (driver == nullptr || driver->size != sizeof(noxel_driver)) return NOXEL_ERROR_ARGUMENT;
  noxel::CallerLog told(log, log_context);
  const noxel::platform::LogScope scope(told.target());
  noxel::DriverInfo info;
  const bool usable = noxel::queryDriver(&info);
  *driver = {};
  driver->size = sizeof(noxel_driver);
  driver->display = noxel::platform::engineDisplayName();
  const std::pair<const char*, char*> texts[] = {{info.eglVendor, driver->egl_vendor},
                                                 {info.eglVersion, driver->egl_version},
                                                 {info.glVendor, driver->gl_vendor},
                                                 {info.glRenderer, driver->gl_renderer},
                                                 {info.glVersion, driver->gl_version}};
  for (const auto& [from, to] : texts) std::snprintf(to, sizeof(driver->egl_vendor), "%s", from);
  driver->keeps_programs = info.programBinaryFormats > 0 ? 1 : 0;
  return usable ? NOXEL_OK : NOXEL_ERROR_NO_GL;
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
  noxel_config whole;
  if (!complete(config, &whole) || enhancer == nullptr) return NOXEL_ERROR_ARGUMENT;
  const int result = check(whole);
  if (result != NOXEL_OK) return result;
  noxel::Enhancer* made = nullptr;
  const int error = noxel::Enhancer::make(whole, &made);
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

int noxel_meter_create(const noxel_config* config, noxel_meter** meter) {
  noxel_config whole;
  if (!complete(config, &whole) || meter == nullptr || !isSized(whole) || whole.frame_interval_us < 0)
    return NOXEL_ERROR_ARGUMENT;
  noxel::Meter* made = nullptr;
  const int error = noxel::Meter::make(whole, &made);
  if (error == NOXEL_OK) *meter = reinterpret_cast<noxel_meter*>(made);
  return error;
}

void noxel_meter_free(noxel_meter** meter) {
  if (meter == nullptr || *meter == nullptr) return;
  delete behind(*meter);
  *meter = nullptr;
}

int noxel_meter_set_exposure(noxel_meter* meter, int strength) {
  if (meter == nullptr || strength < 0 || strength > 100) return NOXEL_ERROR_ARGUMENT;
  behind(meter)->setExposure(strength);
  return NOXEL_OK;
}

int noxel_meter_measure(noxel_meter* meter, const noxel_frame* frame, noxel_frame_info* info) {
  if (meter == nullptr || frame == nullptr || frame->size < sizeof(noxel_frame) || info == nullptr || !isWhole(info))
    return NOXEL_ERROR_ARGUMENT;
  const noxel::platform::LogScope log(behind(meter)->log());
  return behind(meter)->measure(*frame, info);
}

int noxel_suggest_tone(const double* histogram, double strength, double* smoothed, double* curve) {
  constexpr int kSmoothingRadius = 3;  // levels; gaps and combs from coding are narrower
  if (histogram == nullptr || curve == nullptr || !(strength >= 0 && strength <= 1)) return NOXEL_ERROR_ARGUMENT;
  noxel::Histogram counts;
  for (int level = 0; level < noxel::kLevels; ++level) {
    if (!(histogram[level] >= 0 && std::isfinite(histogram[level]))) return NOXEL_ERROR_ARGUMENT;
    counts.bins[level] = histogram[level];
  }
  noxel::Histogram smooth;
  noxel::smoothHistogram(counts, kSmoothingRadius, &smooth);
  const noxel::ToneCurve suggested = noxel::suggestToneCurve(smooth, strength);
  if (smoothed != nullptr) std::copy_n(smooth.bins, noxel::kLevels, smoothed);
  std::copy_n(suggested.level, noxel::kLevels, curve);
  return NOXEL_OK;
}
}
