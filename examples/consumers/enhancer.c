/* Prints libnoxel's version and the settings that it lists, and makes an enhancer. */
#include <noxel/enhancer.h>
#include <stdio.h>

static void print_setting(const noxel_setting_info* setting) {
  printf("%s: ", setting->name);
  if (setting->type == NOXEL_SETTING_CHOICE) {
    for (int i = 0; i <= (int)(setting->maximum - setting->minimum); ++i) printf("%s ", setting->choices[i]);
    printf("(%s)", setting->choices[(int)(setting->initial - setting->minimum)]);
  } else if (setting->type == NOXEL_SETTING_BOOL) {
    printf("%s", setting->initial != 0 ? "true" : "false");
  } else {
    printf("%g to %g (%g)", setting->minimum, setting->maximum, setting->initial);
  }
  printf(". %s\n", setting->description);
}

int main(void) {
  /* A library of the same major version, and not older than the header, has all that the header declares. */
  const int version = noxel_version_number();
  if (version / 10000 != NOXEL_VERSION_MAJOR || version < NOXEL_VERSION_NUMBER) {
    fprintf(stderr, "libnoxel %s is too old for this program\n", noxel_version());
    return 1;
  }
  printf("libnoxel %s\n", noxel_version());

  size_t count = 0;
  const noxel_setting_info* settings = noxel_settings(&count);
  for (size_t i = 0; i < count; ++i) print_setting(&settings[i]);

  noxel_config config;
  noxel_config_init(&config, sizeof config, 64, 48);
  noxel_enhancer* enhancer = NULL;
  const int result = noxel_create(&config, &enhancer);
  printf("enhancer of 64 x 48: %s\n", noxel_error_text(result));
  noxel_free(&enhancer);
  return result == NOXEL_OK ? 0 : 3;
}
