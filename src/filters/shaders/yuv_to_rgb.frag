precision mediump float;
FRAGC
uniform mediump sampler2D s_YTexture;
uniform mediump sampler2D s_CTexture;
uniform float u_Gamma;
IN highp vec2 v_texCoord;

// Full-range BT.601, by columns: R = Y + 1.402 V, G = Y - 0.34414 U - 0.71414 V, B = Y + 1.772 U.
const mat3 colormat = mat3(1, 1, 1, 0, -0.34414, 1.77200, 1.40200, -0.71414, 0);
const vec2 bias = vec2(0.5, 0.5);

void main() {
  vec3 yuv;
  yuv.x = TEXTURE(s_YTexture, v_texCoord).r;
  yuv.zy = TEXTURE(s_CTexture, v_texCoord).ra - bias;
  vec3 rgb = max(vec3(0.0), min(colormat * yuv, 1.0));
  vFragColor = vec4(min(pow(rgb, vec3(u_Gamma)), 1.0), 1.0);
}
