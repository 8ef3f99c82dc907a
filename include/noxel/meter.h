/* Noxel: what frames are like, without enhancing them. On the processor alone: no GPU and no driver.
 *
 *     noxel_config config;
 *     noxel_config_init(&config, sizeof config, width, height);
 *     noxel_meter* meter = NULL;
 *     if (noxel_meter_create(&config, &meter) != NOXEL_OK) ...
 *     for each frame:
 *       if (noxel_meter_measure(meter, &frame, &info) == NOXEL_OK) use(info.noise_luma, info.gain, ...);
 *     noxel_meter_free(&meter);
 *
 * A meter belongs to one stream of frames of one size, and to one thread at a time. Different meters and enhancers know nothing
 * of each other. It is in libnoxel; results are those of enhancer.h.
 */
#ifndef NOXEL_METER_H
#define NOXEL_METER_H

#include "noxel/enhancer.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A meter; opaque. Made by noxel_meter_create, freed by noxel_meter_free. */
typedef struct noxel_meter noxel_meter;

/** Makes a meter.
 *
 *  config  width, height, frame_interval_us, log and log_context are read; the rest is for enhancers
 *  meter   receives it; untouched on failure
 *
 *  NOXEL_OK; NOXEL_ERROR_ARGUMENT: a null pointer, or a size below 1 or too large; NOXEL_ERROR_MEMORY.
 *
 *  Ownership: the caller's until noxel_meter_free.
 */
NOXEL_API int noxel_meter_create(const noxel_config* config, noxel_meter** meter);

/** Frees a meter and sets *meter to null. Null, or a pointer to null, is fine. */
NOXEL_API void noxel_meter_free(noxel_meter** meter);

/** How far the exposure that is measured brightens, 0..100 (50): as the setting "exposure". From the next frame on.
 *  NOXEL_ERROR_ARGUMENT: null, or out of range. */
NOXEL_API int noxel_meter_set_exposure(noxel_meter* meter, int strength);

/** Measures a frame against the one before, as an enhancer does.
 *
 *  frame  of any format but NOXEL_PLANES_RGBA; only read
 *  info   receives what is known. motion_known, starts_sequence, points, previous_from_current; noise_known and noise_luma, not
 *         of U and V; gamma and gain as of mode 1, tone as of mode 5; motion_ms, the time this call took. The rest as of a frame
 *         that came back as it went in
 *
 *  NOXEL_OK; NOXEL_ERROR_ARGUMENT as of noxel_send and noxel_receive.
 *
 *  Time: some milliseconds for 640 x 360.
 */
NOXEL_API int noxel_meter_measure(noxel_meter* meter, const noxel_frame* frame, noxel_frame_info* info);

/** Suggests a tone curve from a histogram: spreads the levels that a picture uses, by limited histogram equalisation with slopes
 *  within 0.5 and 3. Strictly increasing; keeps 0 and 255. Depends on the levels' shares, not on how many pixels there are.
 *
 *  histogram  256 counts, finite and not negative; all 0 gives the identity
 *  strength   0 (identity) .. 1
 *  smoothed   receives the histogram that the curve is made from, 256 counts: gaps and combs from coding smoothed away; may be
 *             null
 *  curve      receives the level out, 0..255, of each level in
 *
 *  NOXEL_OK or NOXEL_ERROR_ARGUMENT. Any thread.
 */
NOXEL_API int noxel_suggest_tone(const double* histogram, double strength, double* smoothed, double* curve);

#ifdef __cplusplus
}
#endif

#endif /* NOXEL_METER_H */
