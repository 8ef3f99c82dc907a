precision highp float;
uniform mat4 m_Transform;  // declared as by the other texts, and ignored: the pattern is fixed to the screen
ATTR vec2 a_Position;
OUT vec2 v_TexCoord;
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  v_TexCoord = ((gl_Position + 1.0) * 0.5).xy;
}
