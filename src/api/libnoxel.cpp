// The C interface of libnoxel: what needs no enhancer.
#include <cstring>

#include "api/enhancer_settings.h"
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

}  // namespace

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
    case NOXEL_ERROR_LOST:
      return "the GPU context is lost";
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
}
