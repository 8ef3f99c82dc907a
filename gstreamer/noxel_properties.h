/* The element's properties: the library's settings, generated from its table, and how an enhancer is made. */
#ifndef NOXEL_PROPERTIES_H
#define NOXEL_PROPERTIES_H

#include <glib-object.h>

typedef enum {
  NOXEL_PROPERTY_MODE = 1,
  NOXEL_PROPERTY_LIVE,
  NOXEL_PROPERTY_LEAD_IN,
  NOXEL_PROPERTY_CACHE_DIRECTORY,
  NOXEL_PROPERTY_SETTINGS /* this + i is the setting that is entry i of noxel_settings() */
} NoxelProperty;

typedef enum { NOXEL_LIVE_AUTO, NOXEL_LIVE_TRUE, NOXEL_LIVE_FALSE } NoxelLive;

void noxel_install_properties(GObjectClass* klass);

/* From and to the property of entry `index` of noxel_settings(). */
double noxel_value_to_setting(guint index, const GValue* value);
void noxel_setting_to_value(guint index, double number, GValue* value);

#endif
