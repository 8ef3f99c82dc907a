precision mediump float;
FRAGC
uniform mediump sampler2D sTexture;
uniform mediump sampler2D sRefTexture;
uniform highp vec2 uPixelSize;
uniform float uGamma;
uniform float uFactor;
uniform float uBlend;
IN highp float vTextureCoordx;
IN highp float vTextureCoordy;

vec4 lookUpTable(vec4 x, vec4 y, float factor) {
  vec4 r = abs(x - y) * factor;
  vec4 r2 = min(r * 0.375, 1.0);
  vec4 r1 = min(r, 0.6667);
  return 1.0 - 1.125 * r1 - 0.25 * r2;
}

void main() {
  highp vec2 center = vec2(vTextureCoordx, vTextureCoordy);
  vec4 color = TEXTURE(sRefTexture, center);
  vec4 tap = TEXTURE(sTexture, center);
  vec4 weight = 2.0 * lookUpTable(color, tap, uFactor);
  vec4 value = color + tap * weight;
  vec4 sum = vec4(1.0) + weight;
  highp float xxx = 1.0;
  highp float yyy = 1.0;
  for (int k = 0; k < 4; ++k) {  // the four diagonals
    tap = TEXTURE(sTexture, center + vec2(xxx, yyy) * uPixelSize);
    weight = lookUpTable(color, tap, uFactor);
    value += tap * weight;
    sum += weight;
    yyy = yyy * xxx;
    xxx = -xxx;
  }
  value = mix(color, value / sum, uBlend);
  vFragColor = min(pow(max(value, 0.0), vec4(uGamma)), vec4(1.0));
}
