precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
uniform highp sampler2D s_OTexture;  // oldest
IN highp vec2 v_OldTexCoord;
IN highp vec2 v_OldestTexCoord;
IN highp vec2 v_NewTexCoord;
void main() {
  vec3 sum = TEXTURE(s_YTexture, v_OldTexCoord).rgb + TEXTURE(s_CTexture, v_NewTexCoord).rgb +
             TEXTURE(s_OTexture, v_OldestTexCoord).rgb;
  vFragColor = vec4(sum / 3.0, 1.0);
}
