precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform highp sampler2D s_CTexture;
uniform vec2 v_texSizeInv;
IN highp vec2 v_texCoord;
IN highp vec2 v_texCoordAbs;

// Full-range BT.601, by columns: R = Y + 1.402 V, G = Y - 0.34414 U - 0.71414 V, B = Y + 1.772 U.
const mat3 colormat = mat3(1, 1, 1, 0, -0.34414, 1.77200, 1.40200, -0.71414, 0);
const vec2 bias = vec2(0.5, 0.5);

// Cubic B-spline over 4 x 4 texels by four bilinear samples: each lies between two texels where the hardware's own weights
// stand to one another as the spline's do.
vec4 filteri(highp sampler2D image, vec2 texcoord, vec2 texscale) {
  vec2 f = fract(texcoord);
  vec2 i = texcoord - f;
  vec2 f2 = f * f;
  vec2 f3 = f2 * f;
  vec2 w0 = -0.167 * f3 + 0.5 * f2 - 0.5 * f + 0.167;
  vec2 w1 = 0.5 * f3 - f2 + 0.667;
  vec2 w3 = 0.167 * f3;
  vec2 w2 = 1.0 - w0 - w1 - w3;
  vec2 s0 = w0 + w1;
  vec2 s1 = w2 + w3;
  vec2 t0 = (i - 0.5 + w1 / s0) * texscale;
  vec2 t1 = (i + 1.5 + w3 / s1) * texscale;
  vec4 low = mix(TEXTURE(image, t0), TEXTURE(image, vec2(t1.x, t0.y)), s1.x);
  vec4 high = mix(TEXTURE(image, vec2(t0.x, t1.y)), TEXTURE(image, t1), s1.x);
  return mix(low, high, s1.y);
}

void main() {
  vec3 yuv;
  yuv.x = filteri(s_YTexture, v_texCoordAbs, v_texSizeInv).r;
  yuv.zy = TEXTURE(s_CTexture, v_texCoord).ra - bias;
  vFragColor = vec4(colormat * yuv, 1.0);
}
