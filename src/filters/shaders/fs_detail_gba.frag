precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform highp sampler2D s_SmoothYTexture;
uniform float u_strength;
IN highp vec2 v_TexCoord;
void main() {
  vec3 C = TEXTURE(s_YTexture, v_TexCoord).gba;
  vec3 d = C - TEXTURE(s_SmoothYTexture, v_TexCoord).rgb;
  float m = min(0.5, (abs(d.r) + abs(d.g) + abs(d.b)) * 2.0);
  vec3 rgb = C + d * ((0.6 + m) * u_strength);
  vFragColor = vec4(1.0, rgb);
}
