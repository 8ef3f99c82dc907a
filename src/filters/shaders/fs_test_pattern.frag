precision highp float;
FRAGC
IN highp vec2 v_TexCoord;
void main() {
  vec2 p = mod(v_TexCoord, 0.25) / 0.25;
  float e = abs(p.x - 0.5) + abs(p.y - 0.5);
  vFragColor = vec4(e, e, e, 1.0);
}
