precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform vec2 v_limits;  // exponent, gain
IN highp vec2 v_texCoord;
void main() {
  vec4 color = TEXTURE(s_YTexture, v_texCoord);
  vFragColor = vec4(pow(max(color.rgb * v_limits.y, 0.0), vec3(v_limits.x)), color.a);
}
