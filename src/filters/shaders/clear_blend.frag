#include "clear_levels.glsl"
uniform sampler2D s_Frame;
#include "clear_chroma.glsl"
uniform usampler2D s_Past;
uniform usampler2D s_PastColour;
uniform sampler2D s_Test;
#ifdef FAST
#include "clear_around.glsl"
#endif
uniform vec2 u_Limits;  // most frames that a mean counts for; 1 where there is a history
layout(location = 0) out uvec4 picture;
layout(location = 1) out uvec4 pictureColour;

// The frame's share in the mean is 1 / count; what was refused around a cell is refused here as well.
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  vec4 frame = 255.0 * texelFetch(s_Frame, at, 0);
  vec2 chroma = 255.0 * chromaAt(at);
  float count = 1.0;
  if (u_Limits.y > 0.5) {
#ifdef FAST
    float test = meanAround(s_Test).r;
#else
    vec2 texel = 1.2 / vec2(textureSize(s_Test, 0));
    vec2 centre = gl_FragCoord.xy / vec2(textureSize(s_Test, 0));
    float test = 0.140625 * texture(s_Test, centre).r;
    for (int i = -1; i <= 1; i += 2) {
      test += 0.09765625 * (texture(s_Test, centre + vec2(i, i) * texel).r + texture(s_Test, centre + vec2(i, -i) * texel).r) +
              0.1171875 * (texture(s_Test, centre + vec2(i, 0) * texel).r + texture(s_Test, centre + vec2(0, i) * texel).r);
    }
#endif
    vec4 colour = vec4(texelFetch(s_PastColour, at, 0));
    if (colour.a > 0.5) test *= 1.6;
    float refused = clamp(test * 4.0 - 1.0, 0.0, 1.0);
    count += min(colour.z / kCountSteps, (colour.a > 0.5 ? 8.0 : u_Limits.x) - 1.0) * (1.0 - refused);
    float share = 1.0 / count;
    frame = mix(levelsOf(texelFetch(s_Past, at, 0)), frame, share);
    chroma = mix(colour.xy / kLevelSteps, chroma, share);
  }
  picture = storeCounted(frame, count);
  pictureColour = uvec4(uvec2(chroma * kLevelSteps + 0.5), uint(count * kCountSteps + 0.5), 0u);
}
