#include "clear_levels.glsl"
uniform usampler2D s_Picture;
uniform usampler2D s_PictureColour;
uniform vec3 u_FrameFromCanvas[2];
#include "clear_local.glsl"
layout(location = 0) out uvec4 canvas;
layout(location = 1) out uvec4 canvasColour;
#include "clear_kernel.glsl"
#define CELL(at) countedLevels(texelFetch(s_Picture, at, 0))
#include "clear_draw_cells.glsl"
#define COLOUR(at) vec2(texelFetch(s_PictureColour, at, 0).rg)
#include "clear_linear.glsl"
#ifdef FAST
#include "clear_draw_colour_fast.glsl"
#else
#include "clear_draw_colour.glsl"
#endif

vec2 toFrame(vec2 place) {
  return vec2(dot(u_FrameFromCanvas[0], vec3(place, 1.0)), dot(u_FrameFromCanvas[1], vec3(place, 1.0)));
}

// What moved by itself takes its history along: the blended picture goes to where it is now.
void main() {
  ivec2 lastCell = textureSize(s_Picture, 0) - 1;
  vec2 p00 = toFrame(2.0 * floor(gl_FragCoord.xy) + 0.5) - 0.5;
  vec2 right = vec2(u_FrameFromCanvas[0].x, u_FrameFromCanvas[1].x);
  vec2 down = vec2(u_FrameFromCanvas[0].y, u_FrameFromCanvas[1].y);
  vec2 p11 = p00 + right + down;
  if (any(lessThan(p00, vec2(0.0))) || any(greaterThan(p11, vec2(2 * lastCell) + 1.0))) discard;
  vec2 place = 0.25 * (p00 + p11) - 0.25;
  vec2 moved = localMotion(ivec2(place + 0.5));
  if (dot(moved, moved) == 0.0) discard;
  canvas = storeLevels(drawCell(p00, p00 + right, p00 + down, p11, lastCell));
  vec2 colour = clamp(drawColour(place, lastCell), 0.0, 65535.0);
  uint count = texelFetch(s_PictureColour, clamp(ivec2(place + 0.5), ivec2(0), lastCell), 0).b;
  canvasColour = uvec4(uvec2(colour + 0.5), count, 0u);
}
