#define FAST
#include "clear_colour.frag"
