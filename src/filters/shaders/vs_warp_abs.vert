ATTR vec2 a_Position;
uniform mat4 m_Transform;
uniform mat4 m_Warp;
uniform vec2 v_texSize;
OUT vec2 v_texCoord;
OUT vec2 v_texCoordAbs;  // luma texels from the centre of the first one
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  v_texCoord = (m_Warp * ((m_Transform * gl_Position + 1.0) * 0.5)).xy;
  v_texCoordAbs = v_texCoord * v_texSize - vec2(0.5);
}
