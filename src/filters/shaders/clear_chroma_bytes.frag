#include "clear_levels.glsl"
#include "clear_tone.glsl"
uniform usampler2D s_Luma;
uniform usampler2D s_Colour;
out vec4 bytes;

// V and U.
vec2 pairOf(ivec2 cell) {
  float gain = toned(meanOf(levelsOf(texelFetch(s_Luma, cell, 0)))).y;
  return (vec2(texelFetch(s_Colour, cell, 0).gr) / kLevelSteps - 128.0) * gain + 128.0;
}

void main() {
  ivec2 cell = ivec2(2 * int(gl_FragCoord.x), int(gl_FragCoord.y));
  bytes = vec4(pairOf(cell), pairOf(cell + ivec2(1, 0))) / 255.0;
}
