// Motion and stabilisation of one frame against the previous one. Registration thread only; only the grid allocates.
#pragma once

#include <cstdint>

#include "registration/camera_path.h"
#include "registration/motion_field.h"
#include "registration/registration_state.h"

namespace noxel {

// Measures a frame and steps the camera path.
//
//   frame          width x height bytes of luminance, of the registration's size, tightly packed
//   motion         3 x 3, row-major: previous from current, in pixels of the registration image
//   inverseMotion  current from previous
//   matches        room for kMaxPoints; receives the registration->matchedCount pairs kept
//   valid          1, or 0 for a first frame, fewer than 5 matches or an implausible motion for a hand-held camera;
//                  ignore the matrices then
//   firstFrame     1: the frame only primes the tracker; set to 0 then
//   stabilization  set up by initStabilization. A frame without valid motion restarts the path from rest; a first frame
//                  keeps the path and sets only the matrix to the identity.
void registerFrame(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, int* valid,
                   _KROFRegistration* registration, int* firstFrame, _KRStabilizationParameters* stabilization);

// The same for a path that a lost frame does not reset: there it coasts, and a first frame restarts it from rest.
void registerFrameCoasting(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches,
                           int* valid, _KROFRegistration* registration, int* firstFrame,
                           _KRStabilizationParameters* stabilization);

// The same as registerFrame for a grid of columns x rows local motions, each fitted around its own centre with its own
// record in `stabilization`, row by row. Valid when no cell has a zero coefficient; ranges are not tested. The matrices
// are those of the last cell fitted; the matches lie on the common motion. Switches the motion field on: where the
// picture moves otherwise, a cell follows it. Allocates; no frame path uses it.
void registerFrameGrid(const uint8_t* frame, float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches,
                       int* valid, _KROFRegistration* registration, int* firstFrame,
                       _KRStabilizationParameters* stabilization, int columns, int rows);

// What both do after tracking, without the tracker. True: valid. field: of the same frame, or none.
bool fitFrame(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
              _KRStabilizationParameters* stabilization);
bool fitFrameGrid(float (&motion)[9], float (&inverseMotion)[9], _KRMatch* matches, _KROFRegistration* registration,
                  _KRStabilizationParameters* stabilization, int columns, int rows, const MotionField& field = {});

// Keeps the pairs that match at least as well as the median one, within limits:
//
//   score >= median score, limited to 0.65..0.9
//   error <= median error, limited to 0.0005..0.002 of width + height
//
// Positions, displacements and identifiers are compacted; scores and errors stay where they were, at `indices`. Sets
// the counts and medians.
void pruneMatches(_KROFRegistration* registration);

}  // namespace noxel
