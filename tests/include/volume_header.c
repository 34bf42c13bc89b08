#include <tolm/volume.h>

const char* UseVolumeHeader(void);

const char* UseVolumeHeader(void) {
  TOLMMountVolInfo* (*const list)(int, int, int) = TOLMMountVolAllEnum;
  int (*const describe)(const char*, TOLMMountVolInfo*) = TOLMMountVolInfoGet;
  void (*const release)(TOLMMountVolInfo*) = TOLMMountVolInfoFree;
  int (*const allowed)(const TOLMMountVolInfo*) = TOLMVolumeServicePolicy;
  static TOLMMountVolInfo record;
  TOLMMountVolInfo* const volumes = list(0, 1, 0);
  const char* wrong = 0;
  if (!volumes) {
    return "no volumes";
  }
  if (describe(volumes->mount_path, &record) != 0 || record.next ||
      record.flags != volumes->flags) {
    wrong = "described in another way than listed";
  } else if (!record.is_local || !record.is_healthy || !record.available || !allowed(&record)) {
    wrong = "not a volume for services";
  } else if (describe("/no/volume", &record) != -1) {
    wrong = "a volume that is not there";
  }
  release(volumes);
  return wrong;
}
