uniform sampler2D s_Local;   // by block: dx + 128 and dy + 128, 8.8, the high byte first
uniform float u_LocalBlock;  // pixels of the frame across a block

// Pixels by which a cell of the frame moved beside the common motion.
vec2 localMotion(ivec2 cell) {
  ivec2 block = ivec2((vec2(cell) * 2.0 + 1.0) / u_LocalBlock);
  vec4 entry = 255.0 * texelFetch(s_Local, min(block, textureSize(s_Local, 0) - 1), 0);
  return entry.rb + entry.ga / 256.0 - 128.0;
}
