#include "clear_levels.glsl"
uniform usampler2D s_Picture;
uniform usampler2D s_PictureColour;
uniform vec2 u_Border;  // cells
layout(location = 0) out uvec4 canvas;
layout(location = 1) out uvec4 canvasColour;

// A canvas that begins with the picture.
void main() {
  ivec2 at = ivec2(floor(gl_FragCoord.xy) - u_Border);
  ivec2 inside = clamp(at, ivec2(0), textureSize(s_Picture, 0) - 1);
  canvas = storeLevels(countedLevels(texelFetch(s_Picture, inside, 0)));
  canvasColour = texelFetch(s_PictureColour, inside, 0);
  if (at != inside) canvasColour.b = 0u;
}
