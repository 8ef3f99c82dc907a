uniform sampler2D s_Chroma;

// U and V of a cell. A frame of odd size has half a cell more than chroma.
vec2 chromaAt(ivec2 cell) {
  return texelFetch(s_Chroma, min(cell, textureSize(s_Chroma, 0) - 1), 0).ar;
}
