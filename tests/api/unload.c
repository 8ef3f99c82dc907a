/* Loads the library, enhances a few frames, releases the engine and unloads the library at once, 200 times over. A thread
 * of the library that outlives Noxel_Release runs code that is no longer there.
 *
 *   unload LIBRARY [KEPT]    KEPT: a library that stays loaded, so that EGL and its driver are not loaded 200 times */
#include <dlfcn.h>
#include <noxel/noxel.h>
#include <stdio.h>
#include <string.h>

enum { kRounds = 200, kWidth = 16, kHeight = 8 };

typedef int (*Initialize)(int, int, _KRSuperResEngine**);
typedef int (*ProcessFrame)(unsigned char*, _KRSuperResEngine*);
typedef int (*Release)(_KRSuperResEngine**);

static int live(void* library, int frames) {
  Initialize initialize;
  ProcessFrame process;
  Release release;
  *(void**)&initialize = dlsym(library, "Noxel_Initialize");
  *(void**)&process = dlsym(library, "Noxel_ProcessFrame");
  *(void**)&release = dlsym(library, "Noxel_Release");
  if (initialize == NULL || process == NULL || release == NULL) return 1;
  _KRSuperResEngine* engine = NULL;
  if (initialize(kWidth, kHeight, &engine) != 0) return 1;
  int failed = 0;
  for (int i = 0; i < frames; ++i) {
    unsigned char frame[kWidth * kHeight * 3 / 2];
    memset(frame, 40, sizeof(frame));
    failed += process(frame, engine);
  }
  return failed + release(&engine);
}

int main(int argc, char** argv) {
  if (argc < 2 || (argc > 2 && dlopen(argv[2], RTLD_NOW | RTLD_LOCAL) == NULL)) return 1;
  for (int round = 0; round < kRounds; ++round) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) return fprintf(stderr, "%s\n", dlerror()), 1;
    if (live(library, 1 + round % 4) != 0) return fprintf(stderr, "round %d failed\n", round), 1;
    dlclose(library);
    if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != NULL) return fprintf(stderr, "it is not unloaded\n"), 1;
  }
  return 0;
}
