// The neutral dialect our shader texts are written in, and its translation to GLSL ES 3.00.
#pragma once

#include "gl/runtime/text.h"

namespace noxel {

// Replaces, one key after the other and every occurrence of each: ATTR -> in, IN -> in, OUT -> out, TEXTURE -> texture,
// FRAGC -> the declaration of the output, vFragColor -> vxFragColor. Adds no version line. Translating a translated text
// changes nothing. Upper-case IN, OUT, ATTR and TEXTURE are translated inside identifiers too: shaders avoid them.
// Failed (empty) when memory ran out.
Text TranslateShader(const char* text);

}  // namespace noxel
