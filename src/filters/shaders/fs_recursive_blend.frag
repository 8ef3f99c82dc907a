precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
IN highp vec2 v_OldTexCoord;
IN highp vec2 v_NewTexCoord;
void main() {
  vec4 old = TEXTURE(s_YTexture, v_OldTexCoord);
  vec4 new = TEXTURE(s_CTexture, v_NewTexCoord);
  float maxDif = 0.2;
  vFragColor = vec4(mix(old.rgb, new.rgb, maxDif), 1.0);
}
