// Draws a cell out of cells that CELL(at) fetches, with six taps a direction, FAST with four. p: positions of its four pixels,
// whole numbers at the source's pixels; they may lie as a translation puts them, and 3 % beside that. lastCell: of the source.
#define FETCH(c, r) CELL(clamp(origin + ivec2(c, r), ivec2(0), lastCell))
#ifdef FAST
#define FAR vec2
#define REST(r)            \
  vec4 c2 = FETCH(2, r);   \
  FAR upperFar = c2.xy, lowerFar = c2.zw;
const float kTapsBefore = 1.0;
#else
#define FAR vec4
#define REST(r)                              \
  vec4 c2 = FETCH(2, r), c3 = FETCH(3, r);   \
  FAR upperFar = vec4(c2.xy, c3.xy), lowerFar = vec4(c2.zw, c3.zw);
const float kTapsBefore = 2.0;
#endif

vec4 drawCell(vec2 p00, vec2 p10, vec2 p01, vec2 p11, ivec2 lastCell) {
  vec2 base = floor(min(min(p00, p10), min(p01, p11))) - kTapsBefore;
  base = 2.0 * floor(0.5 * base);
  ivec2 origin = ivec2(base * 0.5);
  vec4 x0, x2, x4, x6, y0, y2, y4, y6;
  FAR x1, x3, x5, x7, y1, y3, y5, y7;
  spread(p00.x, base.x, x0, x1);
  spread(p10.x, base.x, x2, x3);
  spread(p01.x, base.x, x4, x5);
  spread(p11.x, base.x, x6, x7);
  spread(p00.y, base.y, y0, y1);
  spread(p10.y, base.y, y2, y3);
  spread(p01.y, base.y, y4, y5);
  spread(p11.y, base.y, y6, y7);
  vec4 sum = vec4(0.0);
#define ROW(r, a, b, c, d, i, j)                                                                      \
  {                                                                                                   \
    vec4 c0 = FETCH(0, r), c1 = FETCH(1, r);                                                          \
    REST(r)                                                                                           \
    vec4 upper = vec4(c0.xy, c1.xy), lower = vec4(c0.zw, c1.zw);                                      \
    sum.x += a.i * (dot(upper, x0) + dot(upperFar, x1)) + a.j * (dot(lower, x0) + dot(lowerFar, x1)); \
    sum.y += b.i * (dot(upper, x2) + dot(upperFar, x3)) + b.j * (dot(lower, x2) + dot(lowerFar, x3)); \
    sum.z += c.i * (dot(upper, x4) + dot(upperFar, x5)) + c.j * (dot(lower, x4) + dot(lowerFar, x5)); \
    sum.w += d.i * (dot(upper, x6) + dot(upperFar, x7)) + d.j * (dot(lower, x6) + dot(lowerFar, x7)); \
  }
  ROW(0, y0, y2, y4, y6, x, y)
  ROW(1, y0, y2, y4, y6, z, w)
  ROW(2, y1, y3, y5, y7, x, y)
#ifndef FAST
  ROW(3, y1, y3, y5, y7, z, w)
#endif
  return sum;
}
