precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;  // old
uniform highp sampler2D s_CTexture;  // new
uniform float m_uFactor;
IN highp vec2 v_texCoord;
void main() {
  vec3 old = TEXTURE(s_YTexture, v_texCoord).rgb;
  vec3 new = TEXTURE(s_CTexture, v_texCoord).rgb;
  vFragColor = vec4(new * m_uFactor + (1.0 - m_uFactor) * old, 1.0);
}
