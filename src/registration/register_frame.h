// Motion and stabilisation of one frame against the one before. Registration thread only; nothing allocates but the grid.
#pragma once

#include <cstdint>

#include "registration/camera_path.h"
#include "registration/registration_state.h"

namespace noxel {

// Measures a frame and goes one step along the camera's path.
//
//   frame          width x height bytes of luminance, of the registration's size, tightly packed
//   motion         3 x 3, row-major: previous from current, in pixels of the registration image
//   inverseMotion  current from previous
//   matches        room for kMaxPoints; gets the kept pairs, registration->matchedCount of them
//   valid          1, or 0 for a first frame, fewer than 5 matches, or a motion that no hand-held camera makes from one frame
//                  to the next; the matrices are not to be used then
//   firstFrame     1: the frame only primes the tracker, and the word is set to 0
//   stabilization  set up by initStabilization. After a frame without valid motion the path starts again from rest; after a
//                  first frame it stays, and only the matrix is the identity.
void registerFrame(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, int* valid,
                   _KROFRegistration* registration, int* firstFrame, _KRStabilizationParameters* stabilization);

// The same for columns x rows local motions, each fitted around its own place and with its own record in `stabilization`,
// row by row. Valid when the tests for zero hold in every cell; no other range is tested. The matrices are those of the last
// cell that was fitted. Allocates; no frame path uses it.
void registerFrameGrid(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches,
                       int* valid, _KROFRegistration* registration, int* firstFrame,
                       _KRStabilizationParameters* stabilization, int columns, int rows);

// The parts of both that follow the tracking of the frame's points and do not need the tracker. True: valid.
bool fitFrame(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
              _KRStabilizationParameters* stabilization);
bool fitFrameGrid(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
                  _KRStabilizationParameters* stabilization, int columns, int rows);

// Keeps the pairs that match at least as well as the median pair, within limits:
//
//   score >= median score, limited to 0.65..0.9
//   error <= median error, limited to 0.0005..0.002 of width + height
//
// Positions, displacements and identifiers move up to the free places; `indices` says where a pair was before, which is
// where its score and error still are. Sets the counts and medians.
void pruneMatches(_KROFRegistration* registration);

}  // namespace noxel
