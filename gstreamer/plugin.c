/* The GStreamer plugin `noxel`. */
#include <gst/gst.h>

#include "noxel/enhancer.h"
#include "noxel_enhance.h"

static gboolean plugin_init(GstPlugin* plugin) {
  if (noxel_version_number() / 100 < NOXEL_VERSION_NUMBER / 100) {
    GST_ERROR("libnoxel is version %s, older than this plugin's " NOXEL_VERSION, noxel_version());
    return FALSE;
  }
  return gst_element_register(plugin, "noxelenhance", GST_RANK_NONE, gst_noxel_enhance_get_type());
}

#define PACKAGE "noxel"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, noxel, "Makes dark video watchable", plugin_init, NOXEL_VERSION,
                  "BSD", "Noxel", "Noxel")
