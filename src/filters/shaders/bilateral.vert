ATTR vec2 aPosition;
OUT highp float vTextureCoordx;
OUT highp float vTextureCoordy;
void main() {
  gl_Position = vec4(aPosition, 0.0, 1.0);
  vec2 center = (aPosition + 1.0) * 0.5;
  vTextureCoordx = center.x;
  vTextureCoordy = center.y;
}
