precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform float u_SharpeningStrength;
uniform vec2 v_Size;
uniform vec2 v_contr;  // width of the curve, unused
IN highp vec2 v_texCoord;

// Logistic curve of width c, scaled so that 0, 0.5 and 1 stay where they are.
vec3 curve(vec3 x, float c) {
  float K = 1.0 / (1.0 + exp(0.5 / c));
  float mi = 1.0 / (2.0 - 1.0 / K);
  return (1.0 - 2.0 * mi) / (1.0 + exp(-(x - 0.5) / c)) + mi;
}

vec4 pair(vec2 offset) {
  return TEXTURE(s_YTexture, v_texCoord + offset) + TEXTURE(s_YTexture, v_texCoord - offset);
}

void main() {
  float mp1 = 1.5 + (4.5 * u_SharpeningStrength) / 100.0;
  float mp2 = (mp1 - 1.0) / 8.0;
  vec4 sum = pair(vec2(v_Size.x, 0.0)) + pair(vec2(0.0, v_Size.y)) + pair(v_Size) + pair(vec2(-v_Size.x, v_Size.y));
  vec4 sharp = TEXTURE(s_YTexture, v_texCoord) * mp1 - mp2 * sum;
  vFragColor = vec4(curve(sharp.rgb, v_contr.x), sharp.a);
}
