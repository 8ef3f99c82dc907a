precision highp float;
FRAGC
uniform highp sampler2D s_texture;
uniform vec2 uPixelSize;  // one pixel of the picture
IN highp vec2 v_texCoord;

// By columns: (RGBtoYUV * rgb) is Y, U, V.
const mat3 RGBtoYUV = mat3(0.2990, -0.1687, 0.5000, 0.5870, -0.3313, -0.4187, 0.1140, 0.5000, -0.0813);

void main() {
  vec3 first = RGBtoYUV * TEXTURE(s_texture, v_texCoord).rgb;
  vec3 second = RGBtoYUV * TEXTURE(s_texture, v_texCoord + vec2(uPixelSize.x, 0.0)).rgb;
  vFragColor = vec4(first.gb, second.gb) + 0.5;
}
