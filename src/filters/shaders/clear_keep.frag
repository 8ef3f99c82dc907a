#include "clear_levels.glsl"
uniform usampler2D s_Past;
uniform usampler2D s_PastColour;
uniform usampler2D s_PictureColour;
layout(location = 0) out uvec4 kept;
layout(location = 1) out uvec4 keptColour;

// What a blended picture owes to its past: the same without the frame itself, and how many frames that is worth.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  kept = texelFetch(s_Past, at, 0);
  uint count = texelFetch(s_PictureColour, at, 0).b;
  keptColour = uvec4(texelFetch(s_PastColour, at, 0).rg, max(count, uint(kCountSteps)) - uint(kCountSteps), 0u);
}
