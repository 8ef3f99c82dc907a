// What can be set on an enhancer, described so that menus and command lines can be made from it.
#include "api/enhancer_settings.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <utility>

namespace noxel {
namespace {

constexpr unsigned modes(std::initializer_list<int> list) {
  unsigned bits = 0;
  for (const int mode : list) bits |= 1u << mode;
  return bits;
}

constexpr const char* kQualities[] = {"fast", "balanced", "best"};

constexpr noxel_setting_info kSettings[] = {
    {NOXEL_STRENGTH, "strength", "How much noise is taken out.", NOXEL_SETTING_INT, 0, 100, 50, nullptr,
     modes({0, 1, 3, 5})},
    {NOXEL_QUALITY, "quality", "How much time a frame may take; best also looks at the frames that follow.",
     NOXEL_SETTING_CHOICE, 0, 2, 1, kQualities, modes({5})},
    {NOXEL_EXPOSURE, "exposure", "How far dark pictures are brightened.", NOXEL_SETTING_INT, 0, 100, 50, nullptr,
     modes({1, 5})},
    {NOXEL_STABILIZE, "stabilize", "Takes the camera's shake out, at the price of the picture's edges.",
     NOXEL_SETTING_BOOL, 0, 1, 0, nullptr, modes({0, 1, 3, 5})},
    {NOXEL_ZOOM, "zoom", "How many times the middle of the picture is magnified.", NOXEL_SETTING_FLOAT, 1, 32, 1,
     nullptr, modes({0, 1, 2, 3, 4, 5})},
    {NOXEL_PER_FRAME, "per-frame", "Enhances each frame by itself, without the frames before it.", NOXEL_SETTING_BOOL,
     0, 1, 0, nullptr, modes({0, 1, 2, 3, 5})},
    {NOXEL_SHARPENING, "sharpening", "How much edges are sharpened.", NOXEL_SETTING_INT, 0, 100, 2, nullptr,
     modes({0, 2, 4})},
    {NOXEL_CONTRAST, "contrast", "How much the contrast of fine detail is raised.", NOXEL_SETTING_INT, 0, 100, 30,
     nullptr, modes({0, 2, 4})},
    {NOXEL_DEGHOSTING, "deghosting", "How soon moving objects are taken from the newest frame alone.",
     NOXEL_SETTING_INT, 0, 10, 8, nullptr, modes({1, 3})},
    {NOXEL_FLIP_CHROMA, "flip-chroma", "U and V change places.", NOXEL_SETTING_BOOL, 0, 1, 0, nullptr, modes({0, 2})},
};
static_assert(std::size(kSettings) == kSettingCount);

bool isNumber(const char* text, double* value) {
  char* end = nullptr;
  *value = std::strtod(text, &end);
  return end != text && *end == '\0';
}

}  // namespace

const noxel_setting_info& settingInfo(int id) {
  return kSettings[id];
}

const noxel_setting_info* findSetting(const char* name) {
  for (const noxel_setting_info& setting : kSettings) {
    if (std::strcmp(setting.name, name) == 0) return &setting;
  }
  return nullptr;
}

bool isInRange(const noxel_setting_info& setting, double value) {
  const bool whole = setting.type == NOXEL_SETTING_FLOAT || value == std::floor(value);
  return whole && value >= setting.minimum && value <= setting.maximum;
}

bool parseSetting(const noxel_setting_info& setting, const char* text, double* value) {
  if (setting.type == NOXEL_SETTING_BOOL) {
    for (const auto& [word, meaning] : {std::pair{"false", 0.0}, {"true", 1.0}}) {
      if (std::strcmp(text, word) == 0) {
        *value = meaning;
        return true;
      }
    }
  }
  if (setting.choices != nullptr) {
    for (int i = 0; i <= static_cast<int>(setting.maximum - setting.minimum); ++i) {
      if (std::strcmp(text, setting.choices[i]) == 0) {
        *value = setting.minimum + i;
        return true;
      }
    }
  }
  return isNumber(text, value) && isInRange(setting, *value);
}

}  // namespace noxel
