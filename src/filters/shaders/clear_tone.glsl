uniform sampler2D s_Tone;  // by luma level: level out, factor of chroma; 16 bits each, high byte first

vec2 toneEntry(int level) {
  vec4 entry = 255.0 * texelFetch(s_Tone, ivec2(level, 0), 0);
  return (entry.rb * 256.0 + entry.ga) / vec2(256.0, 4096.0);
}

// Level out and factor of chroma.
vec2 toned(float level) {
  int i = min(int(level), 254);
  return mix(toneEntry(i), toneEntry(i + 1), level - float(i));
}
