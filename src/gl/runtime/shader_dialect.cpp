#include "gl/runtime/shader_dialect.h"

#include <cstring>

namespace noxel {
namespace {

struct Replacement {
  const char* find;
  const char* with;
};

constexpr Replacement kReplacements[] = {
    {"ATTR", "in"},
    {"IN", "in"},
    {"OUT", "out"},
    {"TEXTURE", "texture"},
    {"FRAGC", "out mediump vec4 vxFragColor;\n"},
    {"vFragColor", "vxFragColor"},
};

// The search goes on behind each inserted text, so that a replacement never feeds itself.
Text replaceAll(const char* text, const Replacement& replacement) {
  Text result;
  const size_t keyLength = std::strlen(replacement.find);
  const char* rest = text;
  while (const char* found = std::strstr(rest, replacement.find)) {
    result.append(rest, static_cast<size_t>(found - rest)).append(replacement.with);
    rest = found + keyLength;
  }
  result.append(rest);
  return result;
}

}  // namespace

Text TranslateShader(const char* text) {
  Text result(text);
  for (const Replacement& replacement : kReplacements) {
    Text next = replaceAll(result.c_str(), replacement);
    if (result.failed() || next.failed())
      return next.failed() ? static_cast<Text&&>(next) : static_cast<Text&&>(result);
    result = static_cast<Text&&>(next);
  }
  return result;
}

}  // namespace noxel
