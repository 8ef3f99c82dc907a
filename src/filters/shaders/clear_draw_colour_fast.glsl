// Linear between the samples of COLOUR(at). place: 0 at the centre of the first sample. last: of the source.
vec2 drawColour(vec2 place, ivec2 last) {
  ivec2 first = ivec2(floor(place));
  vec4 weights = linearWeights(place);
#define AT(c, r) COLOUR(clamp(first + ivec2(c, r), ivec2(0), last))
  return weights.x * AT(0, 0) + weights.y * AT(1, 0) + weights.z * AT(0, 1) + weights.w * AT(1, 1);
#undef AT
}
