uniform vec4 u_LumaNoise[8];  // variance by level, 8 levels an entry
uniform vec4 u_BlueNoise[8];  // of U, by luma
uniform vec4 u_RedNoise[8];   // of V

float entryOf(vec4 curve[8], int i) {
  vec4 four = curve[i >> 2];
  int k = i & 3;
  return k == 0 ? four.x : k == 1 ? four.y : k == 2 ? four.z : four.w;
}

// An entry stands at the middle of its levels.
float noiseAt(vec4 curve[8], float level) {
  float at = clamp(level / 8.0 - 0.5, 0.0, 31.0);
  int i = min(int(at), 30);
  return mix(entryOf(curve, i), entryOf(curve, i + 1), at - float(i));
}
