#define FAST
#include "clear_history.frag"
