precision highp float;
FRAGC
uniform highp sampler2D s_Texture;
uniform vec2 u_PixelSize;
uniform float u_MinWeight;
IN highp vec2 v_TexCoord;
void main() {
  float v = TEXTURE(s_Texture, v_TexCoord).r;
  v = min(v, TEXTURE(s_Texture, v_TexCoord - u_PixelSize).r);
  v = min(v, TEXTURE(s_Texture, v_TexCoord + u_PixelSize).r);
  if (v < 0.95) v = u_MinWeight;
  vFragColor = vec4(v, v, v, 1.0);
}
