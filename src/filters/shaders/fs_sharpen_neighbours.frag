precision highp float;
FRAGC
uniform highp sampler2D s_YTexture;
uniform float u_SharpeningStrength;
IN highp vec2 v_texCoord;
IN highp vec2 v_naapurit[8];
void main() {
  float mp1 = 1.5 + (4.5 * u_SharpeningStrength) / 100.0;
  float mp2 = (mp1 - 1.0) / 8.0;
  vec4 sum = TEXTURE(s_YTexture, v_naapurit[0]) + TEXTURE(s_YTexture, v_naapurit[1]) +
             TEXTURE(s_YTexture, v_naapurit[2]) + TEXTURE(s_YTexture, v_naapurit[3]) +
             TEXTURE(s_YTexture, v_naapurit[4]) + TEXTURE(s_YTexture, v_naapurit[5]) +
             TEXTURE(s_YTexture, v_naapurit[6]) + TEXTURE(s_YTexture, v_naapurit[7]);
  vFragColor = TEXTURE(s_YTexture, v_texCoord) * mp1 - mp2 * sum;
}
