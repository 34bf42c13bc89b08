/* A reader in C99: takes the lock of a database, checks that it has it, releases it. */
#include <stdio.h>
#include <stdlib.h>

#include "dataupdate/project_lock.h"

int main(int argc, char** argv) {
  int lock;
  if (argc != 3)
    return 2;
  lock = TOLMDBUDGetFileLock(argv[1], (uint32_t)strtoul(argv[2], NULL, 10));
  if (lock >= 0)
    puts("locked");
  else
    printf("%d\n", lock);
  TOLMDBUDReleaseFileLock(lock);
  if (lock >= 0)
    puts("released");
  return 0;
}
