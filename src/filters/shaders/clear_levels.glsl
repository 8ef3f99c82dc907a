precision highp float;
precision highp int;
precision highp sampler2D;
precision highp usampler2D;

// The picture lies in cells of 2 x 2 pixels, one texel each: r, g above b, a. Levels are 0..255; stored they are 8.8 fixed
// point, and a count of frames has 11 bits behind the point.
const float kLevelSteps = 256.0;
const float kCountSteps = 2048.0;

vec4 levelsOf(uvec4 stored) {
  return vec4(stored) / kLevelSteps;
}

uvec4 storeLevels(vec4 levels) {
  return uvec4(clamp(levels, 0.0, 255.0) * kLevelSteps + 0.5);
}

// Of a blended picture: 12 bits of level, four of the count, the same in all pixels of a cell: by thirds of an octave, 1 to 32.
uvec4 storeCounted(vec4 levels, float count) {
  return (uvec4(clamp(levels, 0.0, 255.0) * 16.0 + 0.5) << 4) + uvec4(clamp(3.0 * log2(count), 0.0, 15.0) + 0.5);
}

vec4 countedLevels(uvec4 stored) {
  return vec4(stored >> 4) / 16.0;
}

float countOf(uvec4 stored) {
  return exp2(float(stored.r & 15u) / 3.0);
}

float meanOf(vec4 cell) {
  return dot(cell, vec4(0.25));
}
