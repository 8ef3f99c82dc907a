// Weights of the four samples around it, row by row.
vec4 linearWeights(vec2 place) {
  vec2 near = fract(place);
  return vec4((1.0 - near.x) * (1.0 - near.y), near.x * (1.0 - near.y), (1.0 - near.x) * near.y, near.x * near.y);
}
