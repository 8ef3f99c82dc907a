precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
uniform highp sampler2D s_DGTexture;
IN highp vec2 v_OldTexCoord;
IN highp vec2 v_NewTexCoord;
void main() {
  vec4 old = TEXTURE(s_YTexture, v_OldTexCoord);
  vec4 new = TEXTURE(s_CTexture, v_NewTexCoord);
  float dg = TEXTURE(s_DGTexture, v_NewTexCoord).r;  // 1 keeps the new frame
  vFragColor = vec4(mix(old.rgb, new.rgb, dg), 1.0);
}
