precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
uniform float uThreshold;
IN highp vec2 v_OldTexCoord;
IN highp vec2 v_NewTexCoord;
void main() {
  vec4 old = TEXTURE(s_YTexture, v_OldTexCoord);
  vec4 new = TEXTURE(s_CTexture, v_NewTexCoord);
  vec3 change = abs(old.rgb - new.rgb);
  float dif = change.r + change.g + change.b;
  float val = step(uThreshold, dif);
  vFragColor = vec4(val, val, val, 1.0);
}
