precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
IN highp vec2 v_OldTexCoord;
IN highp vec2 v_NewTexCoord;
void main() {
  vec4 old = TEXTURE(s_YTexture, v_OldTexCoord);
  vec4 new = TEXTURE(s_CTexture, v_NewTexCoord);
  vFragColor = vec4(max(min(new.rgb * 5.0 - 4.0 * old.rgb, 1.0), 0.0), 1.0);
}
