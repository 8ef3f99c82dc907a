#include "clear_levels.glsl"
#include "clear_tone.glsl"
uniform usampler2D s_Luma;
out vec4 bytes;

// Four pixels of a row.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  ivec2 cell = ivec2(2 * at.x, at.y >> 1);
  vec4 left = levelsOf(texelFetch(s_Luma, cell, 0));
  vec4 right = levelsOf(texelFetch(s_Luma, cell + ivec2(1, 0), 0));
  vec4 row = (at.y & 1) == 0 ? vec4(left.xy, right.xy) : vec4(left.zw, right.zw);
  bytes = vec4(toned(row.x).x, toned(row.y).x, toned(row.z).x, toned(row.w).x) / 255.0;
}
