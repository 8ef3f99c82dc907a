// Named watches around the stages of the frame path.
#pragma once

#include "noxel/noxel.h"

// Ids: 1 luma load and chroma filtering, 2 chroma load, 3 wait for the luma load, 5 load, 6 process, 7 read-back, 9 output
// conversion, 10 input conversion, 31 read-back start, 72 load and registration of one frame.
