precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
IN highp vec2 v_texCoord;
void main() {
  vec4 old = TEXTURE(s_YTexture, v_texCoord);
  vec3 new = TEXTURE(s_CTexture, v_texCoord).rgb;
  float oldF = 0.333 * (old.r + old.g + old.b);
  float hidastus = max(min((0.95 - oldF) * 10.0, 1.0), 0.005);
  vFragColor = vec4(max(old.rgb - hidastus, new), 1.0);
}
