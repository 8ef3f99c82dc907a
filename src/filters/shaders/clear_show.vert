ATTR vec2 a_Position;
uniform mat4 m_Transform;
OUT vec2 v_texCoord;
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  v_texCoord = ((m_Transform * gl_Position + 1.0) * 0.5).xy;
}
