precision mediump float;
FRAGC
uniform mediump sampler2D s_YTexture;
uniform mediump sampler2D s_SmoothYTexture;
uniform float u_strength;
uniform float u_contr;
IN highp vec2 v_TexCoord;

// Logistic curve of width c, scaled so that 0, 0.5 and 1 stay where they are.
vec3 curve(vec3 x, float c) {
  float K = 1.0 / (1.0 + exp(0.5 / c));
  float mi = 1.0 / (2.0 - 1.0 / K);
  return (1.0 - 2.0 * mi) / (1.0 + exp(-(x - 0.5) / c)) + mi;
}

void main() {
  vec3 C = TEXTURE(s_YTexture, v_TexCoord).rgb;
  vec3 d = C - TEXTURE(s_SmoothYTexture, v_TexCoord).rgb;
  // Half the edge response of the other detail texts: the curve steepens the edges as well.
  float m = min(0.5, abs(d.r) + abs(d.g) + abs(d.b));
  vec3 rgb = C + d * ((0.6 + m) * u_strength);
  rgb = curve(rgb, u_contr);
  vFragColor = vec4(rgb, 1.0);
}
