#include "tests/operation/loading/download.h"

int main() {
  return DownloadWatched();
}
