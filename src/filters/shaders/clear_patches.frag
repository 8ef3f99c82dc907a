#include "clear_levels.glsl"
#include "clear_noise.glsl"
uniform usampler2D s_Picture;
uniform float u_Strength;  // of the noise's variance
out uvec4 denoised;

// Mean of the neighbours whose 3 x 3 patches differ by no more than their noise; weights by what is known of each.
#ifdef FAST
const int kSide = 3;  // cells
const int kReach = 1;
#else
const int kSide = 5;
const int kReach = 3;
#endif
const int kMiddle = kSide / 2;
const int kWide = 2 * kSide;
void main() {
  ivec2 at = ivec2(gl_FragCoord.xy);
  ivec2 last = textureSize(s_Picture, 0) - 1;
  float p[4 * kSide * kSide];
  float counts[kSide * kSide];
  float mean = 0.0;
  for (int r = 0; r < kSide; ++r) {
    for (int c = 0; c < kSide; ++c) {
      uvec4 stored = texelFetch(s_Picture, clamp(at + ivec2(c, r) - kMiddle, ivec2(0), last), 0);
      vec4 levels = countedLevels(stored);
      int first = 2 * (kWide * r + c);
      p[first] = levels.x;
      p[first + 1] = levels.y;
      p[first + kWide] = levels.z;
      p[first + kWide + 1] = levels.w;
      counts[kSide * r + c] = countOf(stored);
      if (abs(c - kMiddle) < 2 && abs(r - kMiddle) < 2) mean += meanOf(levels);
    }
  }
  float noise = max(noiseAt(u_LumaNoise, mean / 9.0) * u_Strength, 1e-3);
  float own = counts[kSide * kMiddle + kMiddle];
  vec4 total = vec4(0.0), weights = vec4(0.0), most = vec4(1e-3);
#define AT(x, y) p[kWide * (2 * kMiddle + (y)) + 2 * kMiddle + (x)]
#define D(x, y) (AT(x, y) - AT(x + dx, y + dy))
  for (int dy = -kReach; dy <= kReach; ++dy) {
    for (int dx = -kReach; dx <= kReach; ++dx) {
      if (dx == 0 && dy == 0) continue;
      float d00 = D(-1, -1), d10 = D(0, -1), d20 = D(1, -1), d30 = D(2, -1);
      float d01 = D(-1, 0), d11 = D(0, 0), d21 = D(1, 0), d31 = D(2, 0);
      float d02 = D(-1, 1), d12 = D(0, 1), d22 = D(1, 1), d32 = D(2, 1);
      float d03 = D(-1, 2), d13 = D(0, 2), d23 = D(1, 2), d33 = D(2, 2);
      float m1 = d10 * d10, m2 = d20 * d20, upper = m1 + m2;
      float n1 = d11 * d11 + d12 * d12, n2 = d21 * d21 + d22 * d22;
      float l = d01 * d01 + d02 * d02, r = d31 * d31 + d32 * d32;
      float b1 = d13 * d13, b2 = d23 * d23, lower = b1 + b2;
      float middle = n1 + n2;
      vec4 distance = vec4(d00 * d00 + upper + l + middle, upper + d30 * d30 + middle + r,
                           l + middle + d03 * d03 + lower, middle + r + lower + d33 * d33) / 9.0;
      // The count of the place's cell; a place between cells takes the one its first pixel is in.
      float theirs = counts[kSide * (kMiddle + (dy >> 1)) + kMiddle + (dx >> 1)];
      float both = noise * (1.0 / own + 1.0 / theirs);
      vec4 alike = exp2(-max(distance - both, vec4(0.0)) * (4.0 / both));
      vec4 weight = alike * theirs;
      total += weight * vec4(AT(dx, dy), AT(1 + dx, dy), AT(dx, 1 + dy), AT(1 + dx, 1 + dy));
      weights += weight;
      most = max(most, alike);
    }
  }
  vec4 self = most * own;
  denoised = storeLevels((total + self * vec4(AT(0, 0), AT(1, 0), AT(0, 1), AT(1, 1))) / (weights + self));
}
