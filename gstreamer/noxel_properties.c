#include "noxel_properties.h"

#include <gst/gst.h>

#include "noxel/enhancer.h"

static GType mode_type(void) {
  static const GEnumValue values[] = {
      {NOXEL_MODE_THREE_FRAMES, "The mean of three frames, sharpened", "three-frames"},
      {NOXEL_MODE_ENHANCE, "Denoised over time, brightened by gain and gamma", "enhance"},
      {NOXEL_MODE_STABILIZE, "Stabilised and sharpened", "stabilize"},
      {NOXEL_MODE_NEUTRAL_EXPOSURE, "As enhance, not brightened", "neutral-exposure"},
      {NOXEL_MODE_CLEAR, "The clear picture: the best one", "clear"},
      {0, NULL, NULL}};
  static gsize type = 0;
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstNoxelEnhanceMode", values));
  return type;
}

static GType live_type(void) {
  static const GEnumValue values[] = {{NOXEL_LIVE_AUTO, "As the source says", "auto"},
                                      {NOXEL_LIVE_TRUE, "Never waits for the GPU, may drop frames", "true"},
                                      {NOXEL_LIVE_FALSE, "Every frame comes out, in order", "false"},
                                      {0, NULL, NULL}};
  static gsize type = 0;
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstNoxelEnhanceLive", values));
  return type;
}

/* "per-frame" -> "GstNoxelEnhancePerFrame", a type with the setting's choices. Called once a setting, by class_init. */
static GType choice_type(const noxel_setting_info* setting) {
  GString* name = g_string_new("GstNoxelEnhance");
  gboolean upper = TRUE;
  for (const char* c = setting->name; *c != '\0'; ++c) {
    if (*c != '-') g_string_append_c(name, upper ? g_ascii_toupper(*c) : *c);
    upper = *c == '-';
  }
  const int first = (int)setting->minimum;
  const int count = (int)setting->maximum - first + 1;
  GEnumValue* values = g_new0(GEnumValue, count + 1); /* kept: the type refers to it for as long as the process lives */
  for (int i = 0; i < count; ++i) {
    values[i].value = first + i;
    values[i].value_name = setting->choices[i];
    values[i].value_nick = setting->choices[i];
  }
  const GType type = g_enum_register_static(name->str, values);
  g_string_free(name, TRUE);
  return type;
}

static GParamSpec* setting_spec(const noxel_setting_info* setting) {
  const GParamFlags flags =
      G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_CONTROLLABLE | GST_PARAM_MUTABLE_PLAYING;
  const char* name = setting->name;
  const char* text = setting->description;
  switch (setting->type) {
    case NOXEL_SETTING_INT:
      return g_param_spec_int(name, name, text, (int)setting->minimum, (int)setting->maximum, (int)setting->initial,
                              flags);
    case NOXEL_SETTING_FLOAT:
      return g_param_spec_double(name, name, text, setting->minimum, setting->maximum, setting->initial, flags);
    case NOXEL_SETTING_BOOL:
      return g_param_spec_boolean(name, name, text, setting->initial != 0, flags);
    case NOXEL_SETTING_CHOICE:
      return g_param_spec_enum(name, name, text, choice_type(setting), (int)setting->initial, flags);
    default: /* of a later library */
      return NULL;
  }
}

void noxel_install_properties(GObjectClass* klass) {
  const GParamFlags flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING;
  g_object_class_install_property(
      klass, NOXEL_PROPERTY_MODE,
      g_param_spec_enum("mode", "mode", "What is done with a frame; a change begins a new sequence.", mode_type(),
                        NOXEL_MODE_CLEAR, flags));
  g_object_class_install_property(
      klass, NOXEL_PROPERTY_LIVE,
      g_param_spec_enum("live", "live",
                        "Whether frames may be dropped instead of waiting; a change begins a new sequence.",
                        live_type(), NOXEL_LIVE_AUTO, flags));
  g_object_class_install_property(
      klass, NOXEL_PROPERTY_LEAD_IN,
      g_param_spec_boolean(
          "lead-in", "lead-in",
          "If not live, sees 16 frames before the first comes out, which is then as clean as the others.", TRUE,
          flags));
  g_object_class_install_property(
      klass, NOXEL_PROPERTY_CACHE_DIRECTORY,
      g_param_spec_string("cache-directory", "cache-directory",
                          "For compiled shader programs; null: noxel in the user's cache directory, empty: none.", NULL,
                          flags));
  size_t count = 0;
  const noxel_setting_info* settings = noxel_settings(&count);
  for (size_t i = 0; i < count; ++i) {
    GParamSpec* spec = setting_spec(&settings[i]);
    if (spec != NULL) g_object_class_install_property(klass, NOXEL_PROPERTY_SETTINGS + (guint)i, spec);
  }
  gst_type_mark_as_plugin_api(mode_type(), 0);
  gst_type_mark_as_plugin_api(live_type(), 0);
}

double noxel_value_to_setting(guint index, const GValue* value) {
  switch (noxel_settings(NULL)[index].type) {
    case NOXEL_SETTING_INT:
      return g_value_get_int(value);
    case NOXEL_SETTING_FLOAT:
      return g_value_get_double(value);
    case NOXEL_SETTING_BOOL:
      return g_value_get_boolean(value) ? 1 : 0;
    default:
      return g_value_get_enum(value);
  }
}

void noxel_setting_to_value(guint index, double number, GValue* value) {
  switch (noxel_settings(NULL)[index].type) {
    case NOXEL_SETTING_INT:
      g_value_set_int(value, (int)number);
      break;
    case NOXEL_SETTING_FLOAT:
      g_value_set_double(value, number);
      break;
    case NOXEL_SETTING_BOOL:
      g_value_set_boolean(value, number != 0);
      break;
    default:
      g_value_set_enum(value, (int)number);
  }
}
