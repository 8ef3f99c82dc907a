#define FAST
#include "clear_accumulate.frag"
