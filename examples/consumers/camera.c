/* Enhances one dark camera frame in place with libNoxel-GLESv3. */
#include <noxel/noxel.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void) {
  const int width = 64;
  const int height = 48;
  const size_t size = (size_t)width * (size_t)height * 3 / 2;
  unsigned char* nv21 = malloc(size);
  _KRSuperResEngine* engine = NULL;
  if (nv21 == NULL || Noxel_Initialize(width, height, &engine) != 0) {
    free(nv21);
    return 1;
  }
  memset(nv21, 40, size);
  const int result = Noxel_ProcessFrame(nv21, engine);
  Noxel_Release(&engine);
  free(nv21);
  printf("%s, frame %s\n", Noxel_GetVersion(), result == 0 ? "accepted" : "refused");
  return result;
}
