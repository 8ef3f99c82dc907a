#include "clear_levels.glsl"
uniform usampler2D s_Canvas;
uniform usampler2D s_CanvasColour;
uniform vec3 u_CanvasFromFrame[2];
#include "clear_local.glsl"
layout(location = 0) out uvec4 past;
layout(location = 1) out uvec4 pastColour;
#include "clear_kernel.glsl"
#define CELL(at) levelsOf(texelFetch(s_Canvas, at, 0))
#include "clear_draw_cells.glsl"
#define COLOUR(at) vec2(texelFetch(s_CanvasColour, at, 0).rg)
#include "clear_linear.glsl"
#ifdef FAST
#include "clear_draw_colour_fast.glsl"
#else
#include "clear_draw_colour.glsl"
#endif

vec2 toCanvas(vec2 frame) {
  return vec2(dot(u_CanvasFromFrame[0], vec3(frame, 1.0)), dot(u_CanvasFromFrame[1], vec3(frame, 1.0)));
}

// The canvas as the frame would see it. Colour: U and V as levels, the count in blue; no count where any of the canvas
// around it is unknown.
void main() {
  ivec2 lastCell = textureSize(s_Canvas, 0) - 1;
  vec2 moved = localMotion(ivec2(gl_FragCoord.xy));
  vec2 p00 = toCanvas(2.0 * floor(gl_FragCoord.xy) + 0.5 - moved) - 0.5;
  vec2 right = vec2(u_CanvasFromFrame[0].x, u_CanvasFromFrame[1].x);
  vec2 down = vec2(u_CanvasFromFrame[0].y, u_CanvasFromFrame[1].y);
  past = storeLevels(drawCell(p00, p00 + right, p00 + down, p00 + right + down, lastCell));

  vec2 place = 0.5 * (p00 + 0.5 * (right + down)) - 0.25;
  vec2 colour = clamp(drawColour(place, lastCell), 0.0, 65535.0);
  ivec2 first = ivec2(floor(place));
#define COUNT(c, r) float(texelFetch(s_CanvasColour, clamp(first + ivec2(c, r), ivec2(0), lastCell), 0).b)
  vec4 counts = vec4(COUNT(0, 0), COUNT(1, 0), COUNT(0, 1), COUNT(1, 1));
  bool known = all(greaterThan(counts, vec4(0.5)));
  pastColour = uvec4(uvec2(colour + 0.5), known ? uint(dot(counts, linearWeights(place)) + 0.5) : 0u, moved == vec2(0.0) ? 0u : 1u);
}
