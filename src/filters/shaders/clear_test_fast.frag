#define FAST
#include "clear_test.frag"
