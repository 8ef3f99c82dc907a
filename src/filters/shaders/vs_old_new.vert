ATTR vec2 a_Position;
uniform mat4 m_Transform;
uniform mat4 m_Warp;
OUT vec2 v_OldTexCoord;
OUT vec2 v_NewTexCoord;
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  vec4 base = (m_Transform * gl_Position + 1.0) * 0.5;
  v_OldTexCoord = (m_Warp * base).xy;
  v_NewTexCoord = base.xy;
}
