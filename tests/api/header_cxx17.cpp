// The public header is for applications in C++17 too.
#include <noxel/noxel.h>

static_assert(__cplusplus == 201703L);
static_assert(sizeof(KRTimer) == 16);
