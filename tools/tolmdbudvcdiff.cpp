// Applies a VCDIFF delta (RFC 3284) by running xdelta3, behind the command line that the engine
// calls.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr char kDecoder[] = "/usr/bin/xdelta3";

enum ExitStatus { kFailure = 1, kUsage = 2, kIoFailure = 3 };

int CannotRead(const char* path) {
  std::fprintf(stderr, "tolmdbudvcdiff: %s: %s\n", path, std::strerror(errno));
  return kIoFailure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || std::string(argv[1]) != "decode") {
    std::fprintf(stderr, "usage: tolmdbudvcdiff decode SOURCE OUTPUT DELTA\n");
    return kUsage;
  }
  const char* source = argv[2];
  const char* output = argv[3];
  const char* delta = argv[4];
  for (const char* input : {source, delta}) {
    if (access(input, R_OK) != 0) {
      return CannotRead(input);
    }
  }
  execl(kDecoder, "xdelta3", "-d", "-f", "-s", source, delta, output, static_cast<char*>(nullptr));
  std::fprintf(stderr, "tolmdbudvcdiff: cannot run %s: %s\n", kDecoder, std::strerror(errno));
  return kFailure;
}
