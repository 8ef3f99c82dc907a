#include "clear_levels.glsl"
#include "clear_noise.glsl"
uniform usampler2D s_PictureColour;
uniform usampler2D s_Guide;
uniform float u_Strength;
out uvec4 colour;

// Chroma smoothed where luma and the chroma around stay the same: 9 x 9 places, compared smoothed, and averaged half as smoothed
// and half as they are, so that fine colour stays.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  ivec2 last = textureSize(s_PictureColour, 0) - 1;
  vec4 guide = vec4(texelFetch(s_Guide, at, 0));
  float luma = guide.z / kLevelSteps;
  vec2 noise = kLevelSteps * kLevelSteps *
               (vec2(noiseAt(u_BlueNoise, luma), noiseAt(u_RedNoise, luma)) * u_Strength + 1e-3);
  float own = guide.w / kCountSteps;
  float weights = 3.0 * own;
  vec2 given = vec2(texelFetch(s_PictureColour, at, 0).rg);
  vec2 total = own * (given + 2.0 * guide.xy);
  for (int dy = -4; dy <= 4; ++dy) {
    for (int dx = -4; dx <= 4; ++dx) {
      ivec2 place = clamp(at + ivec2(dx, dy), ivec2(0), last);
      vec4 there = vec4(texelFetch(s_Guide, place, 0));
      vec3 apart = there.xyz - guide.xyz;
      float theirs = there.w / kCountSteps;
      vec2 both = 1.5 * noise * (1.0 / own + 1.0 / theirs);
      vec2 colours = max(apart.xy * apart.xy - 0.25 * both, vec2(0.0)) / both;
      float lumas = apart.z / (3.0 * kLevelSteps);
      float weight = dx == 0 && dy == 0 ? 0.0 : exp2(-1.4427 * (lumas * lumas + colours.x + colours.y)) * theirs;
      total += weight * mix(vec2(texelFetch(s_PictureColour, place, 0).rg), there.xy, 0.5);
      weights += weight;
    }
  }
  // As clear_colour at low strengths.
  colour = uvec4(uvec2(mix(given, total / weights, min(8.0 * u_Strength, 1.0)) + 0.5), 0u, 0u);
}
