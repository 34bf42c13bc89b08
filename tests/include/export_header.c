#include <tolm/export.h>

TOLM_PLATFORM_API const char* UseExportHeader(void);

const char* UseExportHeader(void) {
  return 0;
}
