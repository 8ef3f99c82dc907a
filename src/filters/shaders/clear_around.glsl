// Means around a texel of a picture that is sampled linearly. Four samples 0.75 off: 0.375, 0.25, 0.375 in each direction.
vec4 meanAround(sampler2D picture) {
  vec2 texel = 0.75 / vec2(textureSize(picture, 0));
  vec2 at = gl_FragCoord.xy / vec2(textureSize(picture, 0));
  return 0.25 * (texture(picture, at + vec2(-1, -1) * texel) + texture(picture, at + vec2(1, -1) * texel) +
                 texture(picture, at + vec2(-1, 1) * texel) + texture(picture, at + vec2(1, 1) * texel));
}
