#include "clear_levels.glsl"
uniform sampler2D s_Luma;
out vec4 cellOfFrame;

// Puts the luma plane into cells.
void main() {
  ivec2 last = textureSize(s_Luma, 0) - 1;
  ivec2 at = 2 * ivec2(gl_FragCoord.xy);
  ivec2 next = min(at + 1, last);
  cellOfFrame = vec4(texelFetch(s_Luma, at, 0).r, texelFetch(s_Luma, ivec2(next.x, at.y), 0).r,
                     texelFetch(s_Luma, ivec2(at.x, next.y), 0).r, texelFetch(s_Luma, next, 0).r);
}
