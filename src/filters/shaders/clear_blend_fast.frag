#define FAST
#include "clear_blend.frag"
