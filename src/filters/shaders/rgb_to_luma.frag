precision highp float;
FRAGC
uniform highp sampler2D s_texture;
uniform vec2 uPixelSize;  // one pixel of the picture
IN highp vec2 v_texCoord;

// By columns: (RGBtoYUV * rgb) is Y, U, V.
const mat3 RGBtoYUV = mat3(0.2990, -0.1687, 0.5000, 0.5870, -0.3313, -0.4187, 0.1140, 0.5000, -0.0813);

float luma(float x) {
  return (RGBtoYUV * TEXTURE(s_texture, vec2(x, v_texCoord.y)).rgb).r;
}

void main() {
  float p = uPixelSize.x;
  float x0 = v_texCoord.x - 1.5 * p;  // the texel is four pixels wide
  vFragColor = vec4(luma(x0), luma(x0 + p), luma(x0 + 2.0 * p), luma(x0 + 3.0 * p));
}
