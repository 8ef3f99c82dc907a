#define FAST
#include "clear_patches.frag"
