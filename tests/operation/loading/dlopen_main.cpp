// Loads libraries, each for itself, and has the last one download.

#include <dlfcn.h>

#include <iostream>

int main(int argc, char** argv) {
  void* library = nullptr;
  for (int i = 1; i < argc; ++i) {
    library = dlopen(argv[i], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      std::cerr << dlerror() << std::endl;
      return 1;
    }
  }
  const auto download = reinterpret_cast<int (*)()>(dlsym(library, "DownloadWatched"));
  return download == nullptr ? 1 : download();
}
