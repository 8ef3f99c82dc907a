precision mediump float;
FRAGC
uniform mediump sampler2D sTexture;
uniform highp vec2 uPixelSize;
uniform float uFactor;
IN highp float vTextureCoordx;
IN highp float vTextureCoordy;

// Falls from 1 in two slopes to about 0.
vec4 lookUpTable(vec4 x, vec4 y, float factor) {
  vec4 r = abs(x - y) * factor;
  vec4 r2 = min(r * 0.3, 1.0);
  vec4 r1 = min(r, 0.8333);
  return 1.0 - 0.6 * r1 - 0.5 * r2;
}

void main() {
  // A target half as high has its centres on the border of two rows of a nearest texture. uPixelSize.y is four rows: a
  // quarter of a row further the lower of the two is meant on every GPU.
  highp vec2 center = vec2(vTextureCoordx, vTextureCoordy + uPixelSize.y / 16.0);
  vec4 color = TEXTURE(sTexture, center);
  vec4 value = color;
  vec4 sum = vec4(1.0);
  for (int k = 1; k <= 7; ++k) {
    highp vec2 offset = vec2(float(k % 3 - 1), float(k / 3 - 1));
    vec4 tap = TEXTURE(sTexture, center + offset * uPixelSize);
    vec4 weight = lookUpTable(color, tap, uFactor);
    value += tap * weight;
    sum += weight;
  }
  vFragColor = value / sum;
}
