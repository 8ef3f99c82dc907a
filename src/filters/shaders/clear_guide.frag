#include "clear_levels.glsl"
uniform usampler2D s_PictureColour;
uniform usampler2D s_Denoised;
out uvec4 guide;

// U and V smoothed (1 2 1), the luma over them, the count.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  ivec2 last = textureSize(s_PictureColour, 0) - 1;
  vec2 sum = vec2(0.0);
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      float weight = float((2 - abs(dx)) * (2 - abs(dy)));
      sum += weight * vec2(texelFetch(s_PictureColour, clamp(at + ivec2(dx, dy), ivec2(0), last), 0).rg);
    }
  }
  float luma = meanOf(vec4(texelFetch(s_Denoised, at, 0)));
  guide = uvec4(uvec2(sum / 16.0 + 0.5), uint(luma + 0.5), texelFetch(s_PictureColour, at, 0).b);
}
