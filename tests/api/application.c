/* An application in C11: loads the library by name, enhances a dark scene through the C interface alone.
 * Exit status 0: brightened; 77: no usable GL driver (a failure where NOXEL_REQUIRE_GL is 1). */
#include <dlfcn.h>
#include <noxel/noxel.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kWidth = 64, kHeight = 32, kLuma = kWidth * kHeight, kSize = kLuma * 3 / 2, kDark = 30 };

typedef const char* (*GetVersion)(void);
typedef int (*Initialize)(int, int, _KRSuperResEngine**);
typedef int (*SetParameter)(unsigned, void*, _KRSuperResEngine*);
typedef int (*ProcessFrame)(unsigned char*, _KRSuperResEngine*);
typedef int (*Release)(_KRSuperResEngine**);

static void* find(void* library, const char* name) {
  void* symbol = dlsym(library, name);
  if (symbol == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    exit(1);
  }
  return symbol;
}

#define FIND(type, name) \
  type name;             \
  *(void**)&name = find(library, "Noxel_" #name)

int main(int argc, char** argv) {
  void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
  if (library == NULL) {
    fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "usage: application LIBRARY");
    return 1;
  }
  FIND(GetVersion, GetVersion);
  FIND(Initialize, Initialize);
  FIND(SetParameter, SetParameter);
  FIND(ProcessFrame, ProcessFrame);
  FIND(Release, Release);
  puts(GetVersion());

  _KRSuperResEngine* engine = NULL;
  int format = NOXEL_FORMAT_YV12;
  if (Initialize(kWidth, kHeight, &engine) != 0) return 1;
  if (SetParameter(NOXEL_PARAMETER_IMAGE_FORMAT, &format, engine) != 0) return 1;

  unsigned char frame[kSize];
  const struct timespec interval = {0, 33 * 1000 * 1000};
  for (int n = 0; n < 40; ++n) {
    memset(frame, kDark, kLuma);
    memset(frame + kLuma, 128, kSize - kLuma);
    if (ProcessFrame(frame, engine) != 0) return 1;
    nanosleep(&interval, NULL);
  }
  if (Release(&engine) != 0) return 1;
  printf("luma %d -> %d\n", kDark, frame[kLuma / 2]);
  if (frame[kLuma / 2] > kDark + 20) return 0;
  return frame[kLuma / 2] == kDark && getenv("NOXEL_REQUIRE_GL") == NULL ? 77 : 1;
}
