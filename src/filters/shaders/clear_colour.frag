#include "clear_levels.glsl"
#include "clear_noise.glsl"
uniform usampler2D s_PictureColour;
uniform usampler2D s_Guide;
uniform float u_Strength;
out uvec4 colour;

#ifdef FAST
const int kReach = 1;
const int kStep = 3;
#else
const int kReach = 2;
const int kStep = 2;
#endif

// Chroma smoothed where luma and the chroma around stay the same.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  ivec2 last = textureSize(s_PictureColour, 0) - 1;
  vec4 guide = vec4(texelFetch(s_Guide, at, 0));
  float luma = guide.z / kLevelSteps;
  vec2 noise = kLevelSteps * kLevelSteps *
               (vec2(noiseAt(u_BlueNoise, luma), noiseAt(u_RedNoise, luma)) * u_Strength + 1e-3);
  float own = guide.w / kCountSteps;
  float weights = own / 4.0;
  vec2 given = vec2(texelFetch(s_PictureColour, at, 0).rg);
  vec2 total = weights * given;
  for (int dy = -kReach; dy <= kReach; ++dy) {
    for (int dx = -kReach; dx <= kReach; ++dx) {
#ifdef FAST
      if (dx != 0 && dy != 0) continue;
#endif
      vec4 there = vec4(texelFetch(s_Guide, clamp(at + kStep * ivec2(dx, dy), ivec2(0), last), 0));
      vec3 apart = there.xyz - guide.xyz;
      float theirs = there.w / kCountSteps;
      vec2 both = 1.5 * noise * (1.0 / own + 1.0 / theirs);
      vec2 colours = max(apart.xy * apart.xy - 0.5 * both, vec2(0.0)) / both;
      float lumas = apart.z / (3.0 * kLevelSteps);
      float weight = exp2(-1.4427 * (lumas * lumas + colours.x + colours.y)) * theirs;
      total += weight * there.xy;
      weights += weight;
    }
  }
  // At strength 0 chroma is what it was, and from an eighth of the middle strength on all of it is smoothed.
  colour = uvec4(uvec2(mix(given, total / weights, min(8.0 * u_Strength, 1.0)) + 0.5), 0u, 0u);
}
