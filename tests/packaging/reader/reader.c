/* Takes and releases the lock for readers of one database. */
#include <dataupdate/project_lock.h>
#include <stdio.h>

int main(void) {
  int lock = TOLMDBUDGetFileLock("x", 0);
  puts(lock >= 0 ? "locked" : "refused");
  TOLMDBUDReleaseFileLock(lock);
  return 0;
}
