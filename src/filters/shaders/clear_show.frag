#include "clear_levels.glsl"
#include "clear_tone.glsl"
uniform usampler2D s_Luma;
uniform usampler2D s_Colour;
uniform vec2 u_FrameSize;
IN vec2 v_texCoord;
out vec4 shown;

float levelAt(ivec2 pixel) {
  pixel = clamp(pixel, ivec2(0), ivec2(u_FrameSize) - 1);
  vec4 cell = levelsOf(texelFetch(s_Luma, pixel >> 1, 0));
  vec2 row = (pixel.y & 1) == 0 ? cell.xy : cell.zw;
  return (pixel.x & 1) == 0 ? row.x : row.y;
}

vec2 colourAt(ivec2 cell) {
  return vec2(texelFetch(s_Colour, clamp(cell, ivec2(0), textureSize(s_Colour, 0) - 1), 0).rg) / kLevelSteps - 128.0;
}

// The finished picture as RGB, full range BT.601, scaled linearly to what it is drawn into.
void main() {
  vec2 place = v_texCoord * u_FrameSize - 0.5;
  ivec2 pixel = ivec2(floor(place));
  vec2 near = fract(place);
  float level = mix(mix(levelAt(pixel), levelAt(pixel + ivec2(1, 0)), near.x),
                    mix(levelAt(pixel + ivec2(0, 1)), levelAt(pixel + ivec2(1, 1)), near.x), near.y);
  place = 0.5 * place - 0.25;
  ivec2 cell = ivec2(floor(place));
  near = fract(place);
  vec2 colour = mix(mix(colourAt(cell), colourAt(cell + ivec2(1, 0)), near.x),
                    mix(colourAt(cell + ivec2(0, 1)), colourAt(cell + ivec2(1, 1)), near.x), near.y);
  vec2 tone = toned(level);
  colour *= tone.y;
  shown = vec4(vec3(tone.x) + vec3(1.402 * colour.y, -0.344136 * colour.x - 0.714136 * colour.y, 1.772 * colour.x), 255.0) / 255.0;
}
