#define FAST
#include "clear_follow.frag"
