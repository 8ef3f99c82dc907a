precision mediump float;
FRAGC
uniform mediump sampler2D s_Texture;
uniform highp vec2 u_PixelSize;
IN highp vec2 v_TexCoord;

float pair(highp float distance) {
  return TEXTURE(s_Texture, v_TexCoord + distance * u_PixelSize).r +
         TEXTURE(s_Texture, v_TexCoord - distance * u_PixelSize).r;
}

// Each tap half-way between two texels takes both; thirteen texels, each a thirteenth.
void main() {
  float v = (pair(1.5) + pair(3.5) + pair(5.5)) * 0.1538 + TEXTURE(s_Texture, v_TexCoord).r * 0.0769;
  vFragColor = vec4(v, v, v, 1.0);
}
