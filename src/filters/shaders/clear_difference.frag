#include "clear_levels.glsl"
#include "clear_noise.glsl"
uniform sampler2D s_Frame;
uniform usampler2D s_Past;
#include "clear_chroma.glsl"
uniform usampler2D s_PastColour;
out vec4 difference;

// How far frame and past lie apart, in standard deviations of what noise explains: the cell's mean (8 from 0 to 1, 0.5 is
// none), its mean square (16), U and V (8).
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  vec4 past = levelsOf(texelFetch(s_Past, at, 0));
  vec3 colour = vec3(texelFetch(s_PastColour, at, 0).rgb);
  vec2 chroma = 255.0 * chromaAt(at) - colour.xy / kLevelSteps;
  float spread = 1.0 + kCountSteps / max(colour.z, kCountSteps);
  float level = meanOf(past);
  vec4 unit = (255.0 * texelFetch(s_Frame, at, 0) - past) * inversesqrt(noiseAt(u_LumaNoise, level) * spread);
  vec2 unitChroma =
      chroma * inversesqrt(vec2(noiseAt(u_BlueNoise, level), noiseAt(u_RedNoise, level)) * spread);
  difference = vec4(meanOf(unit) / 8.0 + 0.5, dot(unit, unit) / 64.0, unitChroma / 8.0 + 0.5);
}
