// The table of an enhancer's settings.
#pragma once

#include "noxel/enhancer.h"

namespace noxel {

inline constexpr int kSettingCount = NOXEL_FLIP_CHROMA + 1;

const noxel_setting_info& settingInfo(int id);            // 0..kSettingCount - 1
const noxel_setting_info* findSetting(const char* name);  // null: none
bool isInRange(const noxel_setting_info& setting, double value);
bool parseSetting(const noxel_setting_info& setting, const char* text, double* value);  // false: no value of it

}  // namespace noxel
