#include "clear_levels.glsl"
uniform usampler2D s_Luma;
uniform usampler2D s_Colour;
uniform vec3 u_FrameFromPicture[2];
layout(location = 0) out uvec4 luma;
layout(location = 1) out uvec4 colour;
#include "clear_kernel.glsl"
#define CELL(at) levelsOf(texelFetch(s_Luma, at, 0))
#include "clear_draw_cells.glsl"
#define COLOUR(at) vec2(texelFetch(s_Colour, at, 0).rg)
#include "clear_linear.glsl"
#ifdef FAST
#include "clear_draw_colour_fast.glsl"
#else
#include "clear_draw_colour.glsl"
#endif

vec2 toFrame(vec2 place) {
  return vec2(dot(u_FrameFromPicture[0], vec3(place, 1.0)), dot(u_FrameFromPicture[1], vec3(place, 1.0)));
}

// The finished picture zoomed and stabilised.
void main() {
  ivec2 lastCell = textureSize(s_Luma, 0) - 1;
  vec2 p00 = toFrame(2.0 * floor(gl_FragCoord.xy) + 0.5) - 0.5;
  vec2 right = vec2(u_FrameFromPicture[0].x, u_FrameFromPicture[1].x);
  vec2 down = vec2(u_FrameFromPicture[0].y, u_FrameFromPicture[1].y);
  luma = storeLevels(drawCell(p00, p00 + right, p00 + down, p00 + right + down, lastCell));
  vec2 drawn = drawColour(0.5 * (p00 + 0.5 * (right + down)) - 0.25, lastCell);
  colour = uvec4(uvec2(clamp(drawn, 0.0, 65535.0) + 0.5), 0u, 0u);
}
