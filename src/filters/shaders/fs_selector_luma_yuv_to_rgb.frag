precision mediump float;
FRAGC
uniform mediump sampler2D s_YTexture;
uniform mediump sampler2D s_CTexture;
uniform mediump sampler2D s_LTexture;
uniform vec2 v_limits;  // exponent, gain
IN highp vec2 v_texCoord;
IN highp vec2 coord;  // luma column / 4: half floats count no further than 2048

// Full-range BT.601, by columns: R = Y + 1.402 V, G = Y - 0.34414 U - 0.71414 V, B = Y + 1.772 U.
const mat3 colormat = mat3(1, 1, 1, 0, -0.34414, 1.77200, 1.40200, -0.71414, 0);
const vec2 bias = vec2(0.5, 0.5);

void main() {
  vec3 yuv;
  yuv.x = dot(TEXTURE(s_YTexture, v_texCoord), TEXTURE(s_LTexture, coord));
  yuv.zy = TEXTURE(s_CTexture, v_texCoord).ra - bias;
  vec3 rgb = colormat * yuv;
  vFragColor = vec4(pow(max(rgb * v_limits.y, 0.0), vec3(v_limits.x)), 1.0);
}
