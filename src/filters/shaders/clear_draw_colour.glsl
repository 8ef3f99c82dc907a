// Four taps a direction out of COLOUR(at). place: 0 at the centre of the first sample. last: of the source.
vec2 drawColour(vec2 place, ivec2 last) {
  vec2 first = floor(place);
  ivec2 origin = ivec2(first) - 1;
  vec4 x = fourWeights(place.x - first.x - 0.5);
  vec4 y = fourWeights(place.y - first.y - 0.5);
  vec2 sum = vec2(0.0);
  for (int r = 0; r < 4; ++r) {
    float w = r == 0 ? y.x : r == 1 ? y.y : r == 2 ? y.z : y.w;
#define AT(c) COLOUR(clamp(origin + ivec2(c, r), ivec2(0), last))
    sum += w * (x.x * AT(0) + x.y * AT(1) + x.z * AT(2) + x.w * AT(3));
#undef AT
  }
  return sum;
}
