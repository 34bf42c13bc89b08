/* The same reader without header or linking: it finds the two functions in the installed library.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef int GetFileLock(const char*, uint32_t);
typedef void ReleaseFileLock(int);

static void* Find(void* library, const char* name) {
  Dl_info place;
  void* const symbol = dlsym(library, name);
  if (symbol == NULL || dladdr(symbol, &place) == 0) {
    fprintf(stderr, "%s: %s\n", name, dlerror());
    exit(3);
  }
  if (strncmp(place.dli_fname, "/usr/lib/", 9) != 0 && strncmp(place.dli_fname, "/lib/", 5) != 0) {
    fprintf(stderr, "%s is in %s\n", name, place.dli_fname);
    exit(4);
  }
  return symbol;
}

int main(int argc, char** argv) {
  GetFileLock* get;
  ReleaseFileLock* release;
  int lock;
  void* const library = dlopen("libtolmdbud.so.1", RTLD_NOW | RTLD_LOCAL);
  if (argc != 3)
    return 2;
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 3;
  }
  /* ISO C does not convert between pointers to objects and to functions; POSIX asks for this form.
   */
  *(void**)&get = Find(library, "TOLMDBUDGetFileLock");
  *(void**)&release = Find(library, "TOLMDBUDReleaseFileLock");
  lock = get(argv[1], (uint32_t)strtoul(argv[2], NULL, 10));
  if (lock >= 0)
    puts("locked");
  else
    printf("%d\n", lock);
  release(lock);
  if (lock >= 0)
    puts("released");
  return 0;
}
