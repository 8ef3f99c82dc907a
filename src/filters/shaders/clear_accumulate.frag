#include "clear_levels.glsl"
uniform usampler2D s_Canvas;
uniform usampler2D s_CanvasColour;
uniform sampler2D s_Frame;
#include "clear_chroma.glsl"
uniform usampler2D s_PictureColour;
uniform vec3 u_FrameFromCanvas[2];
uniform vec2 u_Scroll;  // cells from here to the same place on the canvas before
layout(location = 0) out uvec4 canvas;
layout(location = 1) out uvec4 canvasColour;
#include "clear_kernel.glsl"
#define CELL(at) (255.0 * texelFetch(s_Frame, at, 0))
#include "clear_draw_cells.glsl"
#define COLOUR(at) (255.0 * kLevelSteps * chromaAt(at))
#include "clear_linear.glsl"
#ifdef FAST
#include "clear_draw_colour_fast.glsl"
#else
#include "clear_draw_colour.glsl"
#endif

vec2 toFrame(vec2 place) {
  return vec2(dot(u_FrameFromCanvas[0], vec3(place, 1.0)), dot(u_FrameFromCanvas[1], vec3(place, 1.0)));
}

// The canvas after the frame was drawn into it with its share.
void main() {
  ivec2 lastCell = textureSize(s_Frame, 0) - 1;
  ivec2 before = ivec2(floor(gl_FragCoord.xy) + u_Scroll);
  ivec2 size = textureSize(s_Canvas, 0);
  bool known = all(greaterThanEqual(before, ivec2(0))) && all(lessThan(before, size));
  before = clamp(before, ivec2(0), size - 1);
  canvas = texelFetch(s_Canvas, before, 0);
  canvasColour = texelFetch(s_CanvasColour, before, 0);
  if (!known) canvasColour.b = 0u;

  vec2 p00 = toFrame(2.0 * floor(gl_FragCoord.xy) + 0.5) - 0.5;
  vec2 right = vec2(u_FrameFromCanvas[0].x, u_FrameFromCanvas[1].x);
  vec2 down = vec2(u_FrameFromCanvas[0].y, u_FrameFromCanvas[1].y);
  vec2 p11 = p00 + right + down;
  if (any(lessThan(p00, vec2(0.0))) || any(greaterThan(p11, vec2(2 * lastCell) + 1.0))) return;
  vec4 drawn = drawCell(p00, p00 + right, p00 + down, p11, lastCell);

  vec2 place = 0.25 * (p00 + p11) - 0.25;
  vec2 colour = drawColour(place, lastCell);
  ivec2 first = ivec2(floor(place));
#define COUNT(c, r) (float(texelFetch(s_PictureColour, clamp(first + ivec2(c, r), ivec2(0), lastCell), 0).b) / kCountSteps)
  vec4 counts = vec4(COUNT(0, 0), COUNT(1, 0), COUNT(0, 1), COUNT(1, 1));
  vec4 weights = linearWeights(place);
  float share = dot(1.0 / counts, weights);
  canvas = storeLevels(mix(levelsOf(canvas), drawn, share));
  vec2 mixed = clamp(mix(vec2(canvasColour.rg), colour, share), 0.0, 65535.0);
  canvasColour = uvec4(uvec2(mixed + 0.5), uint(dot(counts, weights) * kCountSteps + 0.5), 0u);
}
