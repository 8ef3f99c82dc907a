precision highp float;
FRAGC
uniform highp sampler2D s_Texture;
uniform vec2 u_steps[4];
uniform float u_MinWeight;
uniform float u_BlendFactor;
IN highp vec2 v_TexCoord;
void main() {
  float v = max(max(TEXTURE(s_Texture, v_TexCoord + u_steps[0]).r, TEXTURE(s_Texture, v_TexCoord + u_steps[1]).r),
                max(TEXTURE(s_Texture, v_TexCoord + u_steps[2]).r, TEXTURE(s_Texture, v_TexCoord + u_steps[3]).r));
  if (v > u_MinWeight + 0.01) v = u_BlendFactor;  // 0.01: the weight comes back rounded to 8 bits
  vFragColor = vec4(v, v, v, 1.0);
}
