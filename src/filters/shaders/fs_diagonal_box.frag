precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform vec2 u_pixelsize;
IN highp vec2 v_TexCoord;
void main() {
  vec3 sum = TEXTURE(s_YTexture, v_TexCoord + u_pixelsize).rgb;
  sum += TEXTURE(s_YTexture, v_TexCoord + u_pixelsize * vec2(-1.0, 1.0)).rgb;
  sum += TEXTURE(s_YTexture, v_TexCoord - u_pixelsize).rgb;
  sum += TEXTURE(s_YTexture, v_TexCoord + u_pixelsize * vec2(1.0, -1.0)).rgb;
  vFragColor = vec4(sum / 4.0, 1.0);
}
