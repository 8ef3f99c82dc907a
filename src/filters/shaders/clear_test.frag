#include "clear_levels.glsl"
uniform sampler2D s_Difference;
#ifdef FAST
#include "clear_around.glsl"
#endif
uniform vec2 u_Scale;  // standard deviation of smoothed luma and chroma differences that are noise alone
out vec4 test;

// How little noise explains the difference around a cell, 8 at 1: the mean in standard deviations, or as much where the
// energy is beyond the noise's. Linear samples 1.2 texels off take two texels as 4 : 1.
void main() {
#ifdef FAST
  vec4 around = meanAround(s_Difference);
  float mean = mix(texelFetch(s_Difference, ivec2(gl_FragCoord.xy), 0).r, around.r, 0.35);
  float energy = around.g;
  vec2 chroma = around.ba;
#else
  vec2 texel = 1.2 / vec2(textureSize(s_Difference, 0));
  vec2 at = gl_FragCoord.xy / vec2(textureSize(s_Difference, 0));
  vec4 corners = vec4(0.0), across = vec4(0.0), down = vec4(0.0);
  vec4 centre = texture(s_Difference, at);
  for (int i = -1; i <= 1; i += 2) {
    corners += texture(s_Difference, at + vec2(i, i) * texel) + texture(s_Difference, at + vec2(i, -i) * texel);
    across += texture(s_Difference, at + vec2(i, 0) * texel);
    down += texture(s_Difference, at + vec2(0, i) * texel);
  }
  vec4 sides = across + down;
  const float m = 0.103, e = 0.3125, c = 0.3333;  // weight of a side
  float mean = m * m * corners.r + m * (1.0 - 2.0 * m) * sides.r + (1.0 - 2.0 * m) * (1.0 - 2.0 * m) * centre.r;
  float energy = e * e * corners.g + e * (1.0 - 2.0 * e) * sides.g + (1.0 - 2.0 * e) * (1.0 - 2.0 * e) * centre.g;
  vec2 chroma = c * c * corners.ba + c * (1.0 - 2.0 * c) * sides.ba + (1.0 - 2.0 * c) * (1.0 - 2.0 * c) * centre.ba;
#endif
  float fromMean = abs(mean - 0.5) * 8.0 / u_Scale.x;
  vec2 fromChroma = 0.8 * abs(chroma - 0.5) * 8.0 / u_Scale.y;
  float fromEnergy = 2.0 + (energy * 16.0 - 1.5) * 1.5;
  test = vec4(max(max(fromMean, fromEnergy), max(fromChroma.x, fromChroma.y)) / 8.0);
}
