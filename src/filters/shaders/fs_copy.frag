precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
IN highp vec2 v_TexCoord;
void main() {
  vFragColor = vec4(TEXTURE(s_YTexture, v_TexCoord).rgb, 1.0);
}
