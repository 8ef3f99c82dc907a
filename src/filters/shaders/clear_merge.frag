#include "clear_levels.glsl"
uniform usampler2D s_Picture;
uniform usampler2D s_PictureColour;
uniform usampler2D s_Offered;
uniform usampler2D s_OfferedColour;
uniform vec2 u_Limits;  // x: most frames that a mean counts for
layout(location = 0) out uvec4 merged;
layout(location = 1) out uvec4 mergedColour;

// Mean of a blended picture and of what comes after the frame, each for as many frames as it is worth.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  vec3 colour = vec3(texelFetch(s_PictureColour, at, 0).rgb);
  vec3 offered = vec3(texelFetch(s_OfferedColour, at, 0).rgb);
  float own = colour.z / kCountSteps;
  float theirs = min(offered.z / kCountSteps, u_Limits.x - 1.0);
  float count = own + theirs;
  float share = theirs / count;
  merged = storeCounted(mix(countedLevels(texelFetch(s_Picture, at, 0)), levelsOf(texelFetch(s_Offered, at, 0)), share), count);
  mergedColour = uvec4(uvec2(mix(colour.xy, offered.xy, share) + 0.5), uint(count * kCountSteps + 0.5), 0u);
}
