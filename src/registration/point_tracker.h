// The tracker, as registerFrame calls it once per frame.
#pragma once

#include "kernels/worker_pool.h"
#include "registration/registration_state.h"

namespace noxel {

// Frames are width x height bytes of luminance, tightly packed, of the size the registration was created for.

// Takes the first frame of a sequence.
void primeTracker(_KROFRegistration* registration, const uint8_t* frame);

// Tracks the previous frame's points into this one and fills the point arrays, scores, errors, identifiers and
// pointCount.
void trackPoints(_KROFRegistration* registration, const uint8_t* frame);

// Makes the current points and pyramid the previous ones.
void advanceTracker(_KROFRegistration* registration);

// Expected error of the last motion, rms over the corners, pixels of the registration image. A direction that the
// picture does not determine counts with what a hand may do in a frame.
double motionDeviation(const _KROFRegistration& registration);

// Null (the default): the calling thread does all the work. The pool must outlive the registration.
void setTrackerWorkers(_KROFRegistration* registration, WorkerPool* pool);

}  // namespace noxel
