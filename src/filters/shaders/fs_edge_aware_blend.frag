precision mediump float;
FRAGC
uniform mediump sampler2D s_texture;
uniform mediump sampler2D s_textureOrig;
uniform highp vec2 u_PixelSize;
uniform highp float u_step;
uniform float u_blend;
IN highp vec2 v_texCoord;

float L(float dist) {
  return max(0.01, max(0.0, (0.05 - dist) * 10.0) + max(0.0, 0.3 - dist));
}

void main() {
  vec3 color = TEXTURE(s_textureOrig, v_texCoord).rgb;
  vec3 c = TEXTURE(s_texture, v_texCoord).rgb;
  float weight = L(length(c - color)) * 1.5;
  vec3 value = c * weight;
  float sum = weight;
  highp float xxx = u_step;
  highp float yyy = u_step;
  for (int k = 0; k < 4; ++k) {
    c = TEXTURE(s_texture, v_texCoord + u_PixelSize * vec2(xxx, yyy)).rgb;
    weight = length(c - color);
    value += c * weight;
    sum += weight;
    // The four diagonals for a step of 1; wider steps reach out in y, sample by sample.
    yyy = yyy * xxx;
    xxx = -xxx;
  }
  vFragColor = vec4(mix(color, value / sum, u_blend), 1.0);
}
