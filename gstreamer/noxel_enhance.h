/* The element noxelenhance. */
#ifndef NOXEL_ENHANCE_H
#define NOXEL_ENHANCE_H

#include <gst/base/gstbasetransform.h>

G_DECLARE_FINAL_TYPE(GstNoxelEnhance, gst_noxel_enhance, GST, NOXEL_ENHANCE, GstBaseTransform)

#endif
