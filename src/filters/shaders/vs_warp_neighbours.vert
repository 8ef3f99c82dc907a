precision highp float;
ATTR vec2 a_Position;
uniform mat4 m_Transform;
uniform mat4 m_Warp;
uniform vec2 v_Size;
OUT vec2 v_texCoord;
OUT vec2 v_naapurit[8];
void main() {
  gl_Position = vec4(a_Position, 0.0, 1.0);
  v_texCoord = (m_Warp * ((m_Transform * gl_Position + 1.0) * 0.5)).xy;
  v_naapurit[0] = v_texCoord + vec2(-v_Size.x, -v_Size.y);
  v_naapurit[1] = v_texCoord + vec2(0.0, -v_Size.y);
  v_naapurit[2] = v_texCoord + vec2(v_Size.x, -v_Size.y);
  v_naapurit[3] = v_texCoord + vec2(-v_Size.x, 0.0);
  v_naapurit[4] = v_texCoord + vec2(v_Size.x, 0.0);
  v_naapurit[5] = v_texCoord + vec2(-v_Size.x, v_Size.y);
  v_naapurit[6] = v_texCoord + vec2(0.0, v_Size.y);
  v_naapurit[7] = v_texCoord + vec2(v_Size.x, v_Size.y);
}
