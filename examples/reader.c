/*
 * Copies a file of a database to standard output while no update replaces it.
 *
 *   cc -o reader reader.c $(pkg-config --cflags --libs tolmdbud)
 *   ./reader geo geo.csv
 *
 * Exit status: 0, or 1 with a line on standard error.
 */
#include <dataupdate/project_lock.h>
#include <stdio.h>
#include <string.h>

enum { kWaitSeconds = 30 };

static int Fail(const char* what, const char* name) {
  fprintf(stderr, "reader: %s: %s\n", name, what);
  return 1;
}

static int CopyToOutput(const char* path) {
  char buffer[65536];
  size_t size = 0;
  int failed = 0;
  FILE* const file = fopen(path, "rb");
  if (file == NULL)
    return Fail("cannot be opened", path);
  while ((size = fread(buffer, 1, sizeof buffer, file)) > 0)
    fwrite(buffer, 1, size, stdout);
  failed = ferror(file) || fflush(stdout) != 0 || ferror(stdout);
  fclose(file);
  return failed ? Fail("cannot be copied", path) : 0;
}

/* To be called under the lock: another volume may have been chosen since. */
static int CopyFrom(const char* database, const char* name) {
  char path[8192];
  size_t length = 0;
  switch (TOLMDBUDGetDirectory(database, path, 4096)) {
    case 0:
      break;
    case -1:
      return Fail("no volume is chosen", database);
    default:
      return Fail("is not configured", database);
  }
  length = strlen(path);
  if (snprintf(path + length, sizeof path - length, "/%s", name) >= (int)(sizeof path - length))
    return Fail("the name is too long", name);
  return CopyToOutput(path);
}

int main(int argc, char** argv) {
  int lock = 0;
  int status = 0;
  if (argc != 3)
    return Fail("usage: reader DATABASE FILE", "two arguments are needed");
  lock = TOLMDBUDGetFileLock(argv[1], kWaitSeconds);
  if (lock == -1)
    return Fail("is being updated", argv[1]);
  if (lock < 0)
    return Fail("is not configured, or tolmdbud init has not run yet", argv[1]);
  status = CopyFrom(argv[1], argv[2]);
  TOLMDBUDReleaseFileLock(lock);
  return status;
}
