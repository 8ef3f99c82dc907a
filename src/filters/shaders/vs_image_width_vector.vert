ATTR vec2 a_Position;
uniform mat4 m_Transform;
uniform float u_ImageWidth;  // a quarter of the luma width: the selector repeats every four columns
OUT vec2 v_texCoord;
OUT vec2 coord;
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  v_texCoord = ((m_Transform * gl_Position + 1.0) * 0.5).xy;
  coord = vec2(v_texCoord.x * u_ImageWidth, 0.0);
}
